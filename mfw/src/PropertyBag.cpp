#include <mfw/PropertyBag.h>

#include <algorithm>
#include <iterator>
#include <limits>

namespace CORE {

namespace {

// Returned for out-of-range indexes and for the text of bag entries, so that
// callers always get a valid reference.
const std::wstring& emptyText() {
    static const std::wstring empty;
    return empty;
}

wchar_t lowerAscii(wchar_t c) {
    return (c >= L'A' && c <= L'Z') ? c - L'A' + L'a' : c;
}

bool equalsNoCase(std::wstring_view a, std::wstring_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(),
                      [](wchar_t x, wchar_t y) { return lowerAscii(x) == lowerAscii(y); });
}

// Strict decimal: optional sign, at least one digit, nothing else, no overflow.
std::optional<std::int64_t> parseInt64(std::wstring_view text) {
    bool negative = false;
    if (!text.empty() && (text.front() == L'-' || text.front() == L'+')) {
        negative = text.front() == L'-';
        text.remove_prefix(1);
    }
    if (text.empty()) {
        return std::nullopt;
    }
    // Accumulate as a negative number: its range is one larger, so INT64_MIN fits.
    constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
    std::int64_t value = 0;
    for (wchar_t c : text) {
        if (c < L'0' || c > L'9') {
            return std::nullopt;
        }
        const int digit = static_cast<int>(c - L'0');
        if (value < (kMin + digit) / 10) {
            return std::nullopt;
        }
        value = value * 10 - digit;
    }
    if (!negative) {
        if (value == kMin) {
            return std::nullopt;
        }
        value = -value;
    }
    return value;
}

// Decimal text without the locale machinery of std::to_wstring.
std::wstring decimal(std::int64_t value) {
    wchar_t buffer[24];
    wchar_t* end = buffer + std::size(buffer);
    wchar_t* p = end;
    // Work on the unsigned magnitude: negating INT64_MIN would overflow.
    std::uint64_t magnitude =
        value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
    do {
        *--p = static_cast<wchar_t>(L'0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (value < 0) {
        *--p = L'-';
    }
    return std::wstring(p, end);
}

}  // namespace

PropertyBag::PropertyBag(const PropertyBag& other) {
    entries_.reserve(other.entries_.size());
    for (const Entry& e : other.entries_) {
        entries_.push_back(
            Entry{e.name, e.text, e.bag ? std::make_unique<PropertyBag>(*e.bag) : nullptr});
    }
}

PropertyBag& PropertyBag::operator=(const PropertyBag& other) {
    if (this != &other) {
        PropertyBag copy(other);
        entries_ = std::move(copy.entries_);
    }
    return *this;
}

PropertyBag::Entry* PropertyBag::findFirst(std::wstring_view name) {
    auto it = std::find_if(entries_.begin(), entries_.end(),
                           [name](const Entry& e) { return e.name == name; });
    return it == entries_.end() ? nullptr : &*it;
}

const PropertyBag::Entry* PropertyBag::findFirst(std::wstring_view name) const {
    auto it = std::find_if(entries_.begin(), entries_.end(),
                           [name](const Entry& e) { return e.name == name; });
    return it == entries_.end() ? nullptr : &*it;
}

void PropertyBag::setEntry(std::wstring_view name, std::wstring_view text, const PropertyBag* bag) {
    // Build the new entry before touching entries_: name, text or bag may
    // point into this very bag.
    setEntry(Entry{std::wstring(name), std::wstring(text),
                   bag ? std::make_unique<PropertyBag>(*bag) : nullptr});
}

PropertyBag::Entry& PropertyBag::setEntry(Entry&& fresh) {
    auto first = std::find_if(entries_.begin(), entries_.end(),
                              [&](const Entry& e) { return e.name == fresh.name; });
    if (first == entries_.end()) {
        return entries_.emplace_back(std::move(fresh));
    }
    first->text = std::move(fresh.text);
    first->bag = std::move(fresh.bag);
    auto later = std::remove_if(std::next(first), entries_.end(),
                                [&](const Entry& e) { return e.name == first->name; });
    entries_.erase(later, entries_.end());
    return *first;
}

void PropertyBag::set(std::wstring_view name, std::wstring_view value) {
    setEntry(name, value, nullptr);
}

void PropertyBag::setInt64(std::wstring_view name, std::int64_t value) {
    setEntry(Entry{std::wstring(name), decimal(value), nullptr});
}

void PropertyBag::setBool(std::wstring_view name, bool value) {
    setEntry(name, value ? L"true" : L"false", nullptr);
}

void PropertyBag::setBag(std::wstring_view name, const PropertyBag& bag) {
    setEntry(name, {}, &bag);
}

void PropertyBag::add(std::wstring_view name, std::wstring_view value) {
    entries_.push_back(Entry{std::wstring(name), std::wstring(value), nullptr});
}

void PropertyBag::addBag(std::wstring_view name, const PropertyBag& bag) {
    // Copy first: `bag` may be this bag or live inside it.
    auto copy = std::make_unique<PropertyBag>(bag);
    entries_.push_back(Entry{std::wstring(name), {}, std::move(copy)});
}

PropertyBag& PropertyBag::setBag(std::wstring name) {
    return *setEntry(Entry{std::move(name), {}, std::make_unique<PropertyBag>()}).bag;
}

PropertyBag& PropertyBag::addBag(std::wstring name) {
    return *entries_.emplace_back(Entry{std::move(name), {}, std::make_unique<PropertyBag>()}).bag;
}

std::size_t PropertyBag::remove(std::wstring_view name) {
    return std::erase_if(entries_, [name](const Entry& e) { return e.name == name; });
}

const std::wstring& PropertyBag::getName(std::size_t index) const {
    return index < entries_.size() ? entries_[index].name : emptyText();
}

bool PropertyBag::isBag(std::size_t index) const {
    return index < entries_.size() && entries_[index].bag != nullptr;
}

const std::wstring& PropertyBag::getValue(std::size_t index) const {
    if (index >= entries_.size() || entries_[index].bag) {
        return emptyText();
    }
    return entries_[index].text;
}

PropertyBag* PropertyBag::getBagPtr(std::size_t index) {
    return index < entries_.size() ? entries_[index].bag.get() : nullptr;
}

const PropertyBag* PropertyBag::getBagPtr(std::size_t index) const {
    return index < entries_.size() ? entries_[index].bag.get() : nullptr;
}

bool PropertyBag::has(std::wstring_view name) const {
    return findFirst(name) != nullptr;
}

std::size_t PropertyBag::count(std::wstring_view name) const {
    return static_cast<std::size_t>(std::count_if(
        entries_.begin(), entries_.end(), [name](const Entry& e) { return e.name == name; }));
}

// The by-name readers look at the first entry of the name only; when that
// entry is of the other kind (bag vs. text) they report nothing.
std::optional<std::wstring> PropertyBag::get(std::wstring_view name) const {
    const Entry* e = findFirst(name);
    if (e == nullptr || e->bag) {
        return std::nullopt;
    }
    return e->text;
}

std::wstring PropertyBag::get(std::wstring_view name, std::wstring_view fallback) const {
    const Entry* e = findFirst(name);
    if (e == nullptr || e->bag) {
        return std::wstring(fallback);
    }
    return e->text;
}

std::optional<std::int64_t> PropertyBag::getInt64(std::wstring_view name) const {
    const Entry* e = findFirst(name);
    if (e == nullptr || e->bag) {
        return std::nullopt;
    }
    return parseInt64(e->text);
}

std::optional<bool> PropertyBag::getBool(std::wstring_view name) const {
    const Entry* e = findFirst(name);
    if (e == nullptr || e->bag) {
        return std::nullopt;
    }
    if (equalsNoCase(e->text, L"true") || e->text == L"1") {
        return true;
    }
    if (equalsNoCase(e->text, L"false") || e->text == L"0") {
        return false;
    }
    return std::nullopt;
}

PropertyBag* PropertyBag::getBag(std::wstring_view name) {
    Entry* e = findFirst(name);
    return e ? e->bag.get() : nullptr;
}

const PropertyBag* PropertyBag::getBag(std::wstring_view name) const {
    const Entry* e = findFirst(name);
    return e ? e->bag.get() : nullptr;
}

std::vector<std::wstring> PropertyBag::getAll(std::wstring_view name) const {
    std::vector<std::wstring> values;
    for (const Entry& e : entries_) {
        if (!e.bag && e.name == name) {
            values.push_back(e.text);
        }
    }
    return values;
}

bool PropertyBag::operator==(const PropertyBag& other) const {
    return std::equal(entries_.begin(), entries_.end(), other.entries_.begin(),
                      other.entries_.end(), [](const Entry& a, const Entry& b) {
                          if (a.name != b.name || (a.bag == nullptr) != (b.bag == nullptr)) {
                              return false;
                          }
                          return a.bag ? *a.bag == *b.bag : a.text == b.text;
                      });
}

}  // namespace CORE
