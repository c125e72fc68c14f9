#pragma once
// The host framework's message payload: an ordered list of named entries.
// Names are wide strings and may repeat; a value is text or a nested bag.
// Integers and booleans are kept as text ("42", "true"/"false").

#include <concepts>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace CORE {

class PropertyBag {
public:
    PropertyBag() = default;
    PropertyBag(const PropertyBag& other);  // deep copy
    PropertyBag& operator=(const PropertyBag& other);
    PropertyBag(PropertyBag&&) noexcept = default;
    PropertyBag& operator=(PropertyBag&&) noexcept = default;
    ~PropertyBag() = default;

    // set*: replace the first entry of that name (keeping its position) and
    // remove later ones of the same name; append when the name is new.
    void set(std::wstring_view name, std::wstring_view value);
    void setInt64(std::wstring_view name, std::int64_t value);
    void setInt(std::wstring_view name, std::int32_t value) { setInt64(name, value); }
    void setBool(std::wstring_view name, bool value);
    void setBag(std::wstring_view name, const PropertyBag& bag);

    // add*: always append a new entry, so a name can repeat.
    void add(std::wstring_view name, std::wstring_view value);
    void addBag(std::wstring_view name, const PropertyBag& bag);

    // Move-in forms of set and add: the strings are taken over, not copied.
    // Only whole std::wstring rvalues pick these; anything else (literals,
    // views, lvalues) keeps to the copying forms above.
    template <class Name, class Value>
    requires std::same_as<Name, std::wstring> && std::same_as<Value, std::wstring>
    void set(Name&& name, Value&& value) {
        setEntry(Entry{std::forward<Name>(name), std::forward<Value>(value), nullptr});
    }
    template <class Name, class Value>
    requires std::same_as<Name, std::wstring> && std::same_as<Value, std::wstring>
    void add(Name&& name, Value&& value) {
        entries_.push_back(Entry{std::forward<Name>(name), std::forward<Value>(value), nullptr});
    }
    // A new, empty nested bag (replacing or appended as setBag/addBag do),
    // returned so the caller fills it in place instead of copying one in.
    PropertyBag& setBag(std::wstring name);
    PropertyBag& addBag(std::wstring name);

    // Room for this many entries in all, so filling a bag of known size
    // does not regrow it.
    void reserve(std::size_t entries) { entries_.reserve(entries); }

    // Removes every entry of that name; returns how many were removed.
    std::size_t remove(std::wstring_view name);
    void clear() { entries_.clear(); }

    std::size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }

    // By index (0 <= index < size()).
    const std::wstring& getName(std::size_t index) const;
    bool isBag(std::size_t index) const;
    // Text of a text entry; empty for a bag entry.
    const std::wstring& getValue(std::size_t index) const;
    // The nested bag of a bag entry, or nullptr.
    PropertyBag* getBagPtr(std::size_t index);
    const PropertyBag* getBagPtr(std::size_t index) const;

    // By name (exact, case-sensitive): the first entry of that name.
    bool has(std::wstring_view name) const;
    std::size_t count(std::wstring_view name) const;
    std::optional<std::wstring> get(std::wstring_view name) const;
    std::wstring get(std::wstring_view name, std::wstring_view fallback) const;
    std::optional<std::int64_t> getInt64(std::wstring_view name) const;
    // "true"/"1" are true, "false"/"0" are false (case-insensitive); others: nullopt.
    std::optional<bool> getBool(std::wstring_view name) const;
    PropertyBag* getBag(std::wstring_view name);
    const PropertyBag* getBag(std::wstring_view name) const;
    // Every text value of that name, in order.
    std::vector<std::wstring> getAll(std::wstring_view name) const;

    bool operator==(const PropertyBag& other) const;

private:
    struct Entry {
        std::wstring name;
        std::wstring text;
        std::unique_ptr<PropertyBag> bag;  // set for bag entries
    };
    Entry* findFirst(std::wstring_view name);
    const Entry* findFirst(std::wstring_view name) const;
    void setEntry(std::wstring_view name, std::wstring_view text, const PropertyBag* bag);
    // Replaces the first entry of fresh's name, or appends; returns the entry.
    Entry& setEntry(Entry&& fresh);

    std::vector<Entry> entries_;
};

}  // namespace CORE
