#include <mfw/PropertyBag.h>

#include <gtest/gtest.h>

#include <limits>

namespace {

using CORE::PropertyBag;
using Lines = std::vector<std::wstring>;

// Names and texts in bag order, bag entries shown as "{...}".
Lines dump(const PropertyBag& bag) {
    Lines out;
    for (std::size_t i = 0; i < bag.size(); ++i) {
        out.push_back(bag.getName(i) + L"=" + (bag.isBag(i) ? L"{...}" : bag.getValue(i)));
    }
    return out;
}

PropertyBag bagOf(std::initializer_list<std::pair<const wchar_t*, const wchar_t*>> entries) {
    PropertyBag bag;
    for (const auto& [name, value] : entries) {
        bag.add(name, value);
    }
    return bag;
}

TEST(propertybag, SetReplacesTheFirstInPlaceAndDropsLaterDuplicates) {
    PropertyBag bag = bagOf({{L"a", L"1"}, {L"b", L"2"}, {L"a", L"3"}, {L"c", L"4"}, {L"a", L"5"}});
    bag.set(L"a", L"9");
    bag.set(L"d", L"new");
    bag.set(L"A", L"x");  // names are case-sensitive
    EXPECT_EQ(dump(bag), (Lines{L"a=9", L"b=2", L"c=4", L"d=new", L"A=x"}));

    // set and setBag change the kind of an entry.
    bag.add(L"a", L"again");
    bag.setBag(L"a", bagOf({{L"k", L"v"}}));
    EXPECT_EQ(dump(bag), (Lines{L"a={...}", L"b=2", L"c=4", L"d=new", L"A=x"}));
    EXPECT_EQ(bag.get(L"a"), std::nullopt);
    bag.set(L"a", L"back");
    EXPECT_EQ(bag.getBag(L"a"), nullptr);
    EXPECT_EQ(bag.get(L"a"), L"back");
}

TEST(propertybag, MoveInFormsGiveTheSameBagAsTheCopyingOnes) {
    const auto w = [](const wchar_t* text) { return std::wstring(text); };
    PropertyBag copied = bagOf({{L"a", L"1"}, {L"b", L"2"}, {L"a", L"3"}});
    copied.set(L"a", L"9");
    copied.setBag(L"b", bagOf({{L"k", L"v"}}));
    copied.addBag(L"c", bagOf({{L"x", L"y"}}));
    copied.setBag(L"d", PropertyBag{});
    copied.add(L"c", L"text");

    PropertyBag moved;
    moved.reserve(2);  // filling past the reservation still works
    moved.add(w(L"a"), w(L"1"));
    moved.add(w(L"b"), w(L"2"));
    moved.add(w(L"a"), w(L"3"));
    moved.set(w(L"a"), w(L"9"));
    moved.setBag(w(L"b")).add(w(L"k"), w(L"v"));
    moved.addBag(w(L"c")).add(w(L"x"), w(L"y"));
    EXPECT_TRUE(moved.setBag(w(L"d")).empty());
    moved.add(w(L"c"), w(L"text"));

    EXPECT_EQ(dump(moved), (Lines{L"a=9", L"b={...}", L"c={...}", L"d={...}", L"c=text"}));
    EXPECT_EQ(moved, copied);
}

TEST(propertybag, NumbersAndBooleansAreTextAndReadBackStrictly) {
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

    const std::pair<const wchar_t*, std::optional<bool>> flags[] = {
        {L"true", true},     {L"TRUE", true},       {L"True", true},         {L"1", true},
        {L"false", false},   {L"FaLsE", false},     {L"0", false},           {L"yes", std::nullopt},
        {L"", std::nullopt}, {L"01", std::nullopt}, {L"truex", std::nullopt}};
    for (const auto& [text, expected] : flags) {
        bag.set(L"b", text);
        EXPECT_EQ(bag.getBool(L"b"), expected) << text;
    }
    EXPECT_EQ(bag.getBool(L"absent"), std::nullopt);
}

TEST(propertybag, AddRepeatsNamesAndByNameReadersSeeTheFirst) {
    PropertyBag bag = bagOf({{L"a", L"x"}});
    bag.addBag(L"a", bagOf({{L"k", L"v"}}));
    bag.add(L"a", L"y");
    bag.add(L"b", L"z");

    EXPECT_FALSE(bag.has(L"A"));
    EXPECT_EQ(bag.count(L"a"), 3u);
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

    // An index out of range is harmless.
    EXPECT_EQ(bag.getName(5) + bag.getValue(5), L"");
    EXPECT_FALSE(bag.isBag(5));
    EXPECT_EQ(bag.getBagPtr(5), nullptr);
    EXPECT_EQ(std::as_const(bag).getBagPtr(5), nullptr);
}

TEST(propertybag, CopiesAreDeep) {
    PropertyBag middle;
    middle.setBag(L"leaf", bagOf({{L"depth", L"2"}}));
    PropertyBag original;
    original.setBag(L"middle", middle);

    PropertyBag copy(original);
    EXPECT_EQ(copy, original);
    copy.getBag(L"middle")->getBag(L"leaf")->set(L"depth", L"changed");
    EXPECT_EQ(original.getBag(L"middle")->getBag(L"leaf")->get(L"depth"), L"2");
    EXPECT_NE(copy, original);

    PropertyBag assigned = bagOf({{L"old", L"gone"}});
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
    PropertyBag bag = bagOf({{L"a", L"1"}, {L"b", L"2"}, {L"a", L"3"}});
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
    EXPECT_NE(bagOf({{L"x", L"1"}, {L"y", L"2"}}), bagOf({{L"y", L"2"}, {L"x", L"1"}}));

    PropertyBag bagEntry;
    bagEntry.setBag(L"n", PropertyBag{});
    EXPECT_NE(bagOf({{L"n", L""}}), bagEntry);  // an empty text is not an empty bag

    PropertyBag c;
    c.setBag(L"n", bagOf({{L"k", L"1"}}));
    PropertyBag d;
    d.setBag(L"n", bagOf({{L"k", L"2"}}));
    EXPECT_NE(c, d);
    d.getBag(L"n")->set(L"k", L"1");
    EXPECT_EQ(c, d);
}

}  // namespace
