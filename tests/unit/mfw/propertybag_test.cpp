#include <mfw/PropertyBag.h>

#include <gtest/gtest.h>

#include <limits>

namespace {

using CORE::PropertyBag;

// Names and texts in bag order, bag entries shown as "{...}".
std::vector<std::wstring> dump(const PropertyBag& bag) {
    std::vector<std::wstring> out;
    for (std::size_t i = 0; i < bag.size(); ++i) {
        out.push_back(bag.getName(i) + L"=" + (bag.isBag(i) ? L"{...}" : bag.getValue(i)));
    }
    return out;
}

using Lines = std::vector<std::wstring>;

TEST(propertybag, SetReplacesFirstInPlaceAndDropsLaterDuplicates) {
    PropertyBag bag;
    bag.add(L"a", L"1");
    bag.add(L"b", L"2");
    bag.add(L"a", L"3");
    bag.add(L"c", L"4");
    bag.add(L"a", L"5");

    bag.set(L"a", L"9");
    EXPECT_EQ(dump(bag), (Lines{L"a=9", L"b=2", L"c=4"}));

    bag.set(L"d", L"new");
    EXPECT_EQ(dump(bag), (Lines{L"a=9", L"b=2", L"c=4", L"d=new"}));

    // Names are case-sensitive: "A" is a different name.
    bag.set(L"A", L"x");
    EXPECT_EQ(bag.size(), 5u);
    EXPECT_EQ(bag.get(L"a"), L"9");
}

TEST(propertybag, SetChangesTheKindOfAnEntry) {
    PropertyBag inner;
    inner.set(L"k", L"v");
    PropertyBag bag;
    bag.set(L"x", L"text");
    bag.add(L"x", L"again");
    bag.setBag(L"x", inner);
    ASSERT_EQ(bag.size(), 1u);
    ASSERT_TRUE(bag.isBag(0));
    EXPECT_EQ(bag.getValue(0), L"");
    EXPECT_EQ(bag.get(L"x"), std::nullopt);

    bag.set(L"x", L"back");
    EXPECT_FALSE(bag.isBag(0));
    EXPECT_EQ(bag.getBag(L"x"), nullptr);
    EXPECT_EQ(bag.get(L"x"), L"back");
}

TEST(propertybag, IntegersAndBooleansAreKeptAsText) {
    PropertyBag bag;
    bag.setInt64(L"max", std::numeric_limits<std::int64_t>::max());
    bag.setInt64(L"min", std::numeric_limits<std::int64_t>::min());
    bag.setInt(L"small", -42);
    bag.setBool(L"yes", true);
    bag.setBool(L"no", false);
    EXPECT_EQ(dump(bag), (Lines{L"max=9223372036854775807", L"min=-9223372036854775808",
                                L"small=-42", L"yes=true", L"no=false"}));
    EXPECT_EQ(bag.getInt64(L"max"), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(bag.getInt64(L"min"), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(bag.getInt64(L"small"), -42);
    EXPECT_EQ(bag.getBool(L"yes"), true);
    EXPECT_EQ(bag.getBool(L"no"), false);
}

TEST(propertybag, GetInt64RejectsAnythingButWholeDecimalNumbers) {
    PropertyBag bag;
    for (const wchar_t* text :
         {L"", L"-", L"+", L"12a", L" 1", L"1 ", L"0x10", L"1.5", L"9223372036854775808",
          L"-9223372036854775809", L"99999999999999999999"}) {
        bag.set(L"n", text);
        EXPECT_EQ(bag.getInt64(L"n"), std::nullopt) << text;
    }
    bag.set(L"n", L"+17");
    EXPECT_EQ(bag.getInt64(L"n"), 17);
    bag.set(L"n", L"-0");
    EXPECT_EQ(bag.getInt64(L"n"), 0);
    EXPECT_EQ(bag.getInt64(L"absent"), std::nullopt);
}

TEST(propertybag, GetBoolAcceptsWordsInAnyCaseAndDigits) {
    PropertyBag bag;
    const std::pair<const wchar_t*, std::optional<bool>> cases[] = {
        {L"true", true},     {L"TRUE", true},       {L"True", true},         {L"1", true},
        {L"false", false},   {L"FaLsE", false},     {L"0", false},           {L"yes", std::nullopt},
        {L"", std::nullopt}, {L"01", std::nullopt}, {L"truex", std::nullopt}};
    for (const auto& [text, expected] : cases) {
        bag.set(L"b", text);
        EXPECT_EQ(bag.getBool(L"b"), expected);
    }
    EXPECT_EQ(bag.getBool(L"absent"), std::nullopt);
}

TEST(propertybag, AddRepeatsNamesAndByNameReadersSeeTheFirst) {
    PropertyBag nested;
    nested.set(L"k", L"v");
    PropertyBag bag;
    bag.add(L"a", L"x");
    bag.addBag(L"a", nested);
    bag.add(L"a", L"y");
    bag.add(L"b", L"z");

    EXPECT_TRUE(bag.has(L"a"));
    EXPECT_FALSE(bag.has(L"A"));
    EXPECT_EQ(bag.count(L"a"), 3u);
    EXPECT_EQ(bag.get(L"a"), L"x");
    EXPECT_EQ(bag.get(L"missing", L"fallback"), L"fallback");
    EXPECT_EQ(bag.get(L"a", L"fallback"), L"x");
    // getAll lists text values only, in order.
    EXPECT_EQ(bag.getAll(L"a"), (Lines{L"x", L"y"}));
    // The first "a" is text, so there is no bag under that name.
    EXPECT_EQ(bag.getBag(L"a"), nullptr);
    ASSERT_NE(bag.getBagPtr(1), nullptr);
    EXPECT_EQ(bag.getBagPtr(1)->get(L"k"), L"v");

    EXPECT_EQ(bag.remove(L"a"), 3u);
    EXPECT_EQ(dump(bag), (Lines{L"b=z"}));
    EXPECT_EQ(bag.remove(L"a"), 0u);
    bag.clear();
    EXPECT_TRUE(bag.empty());
}

TEST(propertybag, IndexOutOfRangeIsHarmless) {
    PropertyBag bag;
    bag.set(L"a", L"1");
    EXPECT_EQ(bag.getName(5), L"");
    EXPECT_EQ(bag.getValue(5), L"");
    EXPECT_FALSE(bag.isBag(5));
    EXPECT_EQ(bag.getBagPtr(5), nullptr);
    EXPECT_EQ(std::as_const(bag).getBagPtr(5), nullptr);
}

TEST(propertybag, CopiesAreDeep) {
    PropertyBag leaf;
    leaf.set(L"depth", L"2");
    PropertyBag middle;
    middle.setBag(L"leaf", leaf);
    PropertyBag original;
    original.setBag(L"middle", middle);
    original.set(L"top", L"1");

    PropertyBag copy(original);
    EXPECT_EQ(copy, original);
    copy.getBag(L"middle")->getBag(L"leaf")->set(L"depth", L"changed");
    EXPECT_EQ(original.getBag(L"middle")->getBag(L"leaf")->get(L"depth"), L"2");
    EXPECT_NE(copy, original);

    PropertyBag assigned;
    assigned.set(L"old", L"gone");
    assigned = original;
    EXPECT_EQ(assigned, original);
    assigned.getBag(L"middle")->set(L"extra", L"x");
    EXPECT_FALSE(original.getBag(L"middle")->has(L"extra"));

    // setBag and addBag copy too.
    PropertyBag holder;
    holder.setBag(L"m", middle);
    holder.addBag(L"m2", middle);
    middle.set(L"later", L"x");
    EXPECT_FALSE(holder.getBag(L"m")->has(L"later"));
    EXPECT_FALSE(holder.getBag(L"m2")->has(L"later"));
}

TEST(propertybag, ArgumentsMayReferToTheBagItself) {
    PropertyBag bag;
    bag.add(L"a", L"1");
    bag.add(L"b", L"2");
    bag.add(L"a", L"3");
    // Name and value both live in the entry that set() removes.
    bag.set(bag.getName(2), bag.getValue(2));
    EXPECT_EQ(dump(bag), (Lines{L"a=3", L"b=2"}));

    bag.addBag(L"self", bag);
    bag.setBag(L"self2", bag);
    ASSERT_NE(bag.getBag(L"self"), nullptr);
    EXPECT_EQ(dump(*bag.getBag(L"self")), (Lines{L"a=3", L"b=2"}));
    EXPECT_EQ(dump(*bag.getBag(L"self2")), (Lines{L"a=3", L"b=2", L"self={...}"}));

    // Replacing a nested bag by its own child.
    PropertyBag* outer = bag.getBag(L"self2");
    bag.setBag(L"self2", *outer->getBag(L"self"));
    EXPECT_EQ(dump(*bag.getBag(L"self2")), (Lines{L"a=3", L"b=2"}));
}

TEST(propertybag, EqualityComparesOrderKindAndNestedContent) {
    PropertyBag a;
    a.set(L"x", L"1");
    a.set(L"y", L"2");
    PropertyBag b;
    b.set(L"y", L"2");
    b.set(L"x", L"1");
    EXPECT_NE(a, b);  // order matters

    PropertyBag emptyNested;
    PropertyBag textEntry;
    textEntry.set(L"n", L"");
    PropertyBag bagEntry;
    bagEntry.setBag(L"n", emptyNested);
    EXPECT_NE(textEntry, bagEntry);  // an empty text is not an empty bag

    PropertyBag n1;
    n1.set(L"k", L"1");
    PropertyBag n2;
    n2.set(L"k", L"2");
    PropertyBag c;
    c.setBag(L"n", n1);
    PropertyBag d;
    d.setBag(L"n", n2);
    EXPECT_NE(c, d);
    d.getBag(L"n")->set(L"k", L"1");
    EXPECT_EQ(c, d);

    PropertyBag moved(std::move(d));
    EXPECT_EQ(moved, c);
}

}  // namespace
