// Value operations (merging, membership, range check, lower-casing, tag
// classes) and the HTML rendering of one attribute.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "attr/cmp_ipp_attr.h"
#include "attr/codec_test_util.h"
#include "attr/registry_fixture.h"

using namespace std::string_literals;

namespace {

using A = cmp_ipp_attr;

const std::string kAddMulti = "[ERROR ]:cmp_ipp_ippattr::cmp_ipp_attr_add_multi";

TEST(AttrAddMulti, AddsTheFirstValueOfTheOther) {
    ScopedRegistry registry(attrTestTables());
    TraceCapture traces;
    const struct {
        const char* label;
        cmp_ipp_attr (*make)();
        int32_t numValues;
        int32_t memberType;
        std::vector<int32_t> longs;
        std::vector<std::string> strings;
        std::vector<std::string> bufs;
        std::vector<std::string> traces;
    } cases[] = {
        {"integer 7 to 1, 2", [] { return multi(A(0x21, 1, 1), {A(0x21, 1, 2), A(0x21, 0, 7)}); }, 3, 0, {1, 2, 7},
         {}, {}, {}},
        {"keyword to integer: traced, unchanged", [] { return multi(A(0x21, 1, 1), {A(0x44, 0, "a4")}); }, 1, 0, {1},
         {}, {}, {kAddMulti + "(1445): cmp_ipp_attr_add_multi wrong type is 0x44, should be 0x21.\n"}},
        {"member takes the first value's tag, then refuses another",
         [] { return multi(A(0x4A, 3), {A(0x44, 0, "a4"), A(0x21, 0, 5)}); }, 1, 0x44, {}, {"a4", ""}, {},
         {kAddMulti + "(1436): cmp_ipp_attr_add_multi wrong type is 0x21, should be 0x44.\n"}},
        {"textWithLanguage: the language is not carried over",
         [] { return multi(A(0x35, 0, "t1", "en"), {A(0x35, 0, "t2", "de")}); }, 2, 0, {}, {"t1", "en", "t2", ""}, {},
         {}},
        {"resolution adds three words", [] { return multi(A(0x32, 0, 300, 300, 3), {A(0x32, 0, 600, 1200, 4)}); }, 2, 0,
         {300, 300, 3, 600, 1200, 4}, {}, {}, {}},
        {"octets are copied", [] { return multi(octetAttr(0x30, 0, "AB"), {octetAttr(0x30, 0, "C\0D"s)}); }, 2, 0, {},
         {}, {"AB", "C\0D"s}, {}},
        {"adding its own first value while the store grows",
         [] {
             A a = multi(A(0x21, 1, 1), {A(0x21, 1, 2)});
             a.cmp_ipp_attr_add_multi(a);
             return a;
         },
         3, 0, {1, 2, 1}, {}, {}, {}},
        {"an other without values adds 0", [] { return multi(A(0x21, 1, 4), {A(0x21, 1)}); }, 2, 0, {4, 0}, {}, {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        orvane::cmp_dbglog_common::get_instance().clear();
        cmp_ipp_attr a = c.make();
        EXPECT_EQ(a.m_numValues, c.numValues);
        EXPECT_EQ(a.m_memberType, c.memberType);
        EXPECT_EQ(words(a), c.longs);
        EXPECT_EQ(strings(a), c.strings);
        EXPECT_EQ(octets(a), c.bufs);
        EXPECT_EQ(traces.lines(), c.traces);
    }
}

TEST(AttrContains, NumbersAndTexts) {
    const cmp_ipp_attr e = multi(A(0x23, 0, 3), {A(0x23, 0, 4), A(0x23, 0, 5)});
    EXPECT_EQ(e.cmp_ipp_attr_contains_value_of(5), 1);
    EXPECT_EQ(e.cmp_ipp_attr_contains_value_of(6), 0);
    EXPECT_EQ(A(0x22, 0, 1).cmp_ipp_attr_contains_value_of(1), 1);
    EXPECT_EQ(A(0x44, 0, "5").cmp_ipp_attr_contains_value_of(5), 0);
    EXPECT_EQ(A(0x33, 0, 5, 5).cmp_ipp_attr_contains_value_of(5), 0);
    EXPECT_EQ(A(0x21, 0).cmp_ipp_attr_contains_value_of(0), 0);
    cmp_ipp_attr counted(0x21, 0, 3);
    counted.m_longs.append(9);
    EXPECT_EQ(counted.cmp_ipp_attr_contains_value_of(9), 0) << "only counted values are looked at";

    const cmp_ipp_attr k = multi(A(0x44, 0, "a4"), {A(0x44, 0, "a3")});
    EXPECT_EQ(k.cmp_ipp_attr_contains_value_of("a3"), 1);
    EXPECT_EQ(k.cmp_ipp_attr_contains_value_of("A4"), 0);
    EXPECT_EQ(k.cmp_ipp_attr_contains_value_of("a"), 0);
    EXPECT_EQ(k.cmp_ipp_attr_contains_value_of("a45"), 0);
    EXPECT_EQ(A(0x44, 0, "a4", "en").cmp_ipp_attr_contains_value_of("en"), 0) << "a language is no value";
    EXPECT_EQ(A(0x41, 0, "hi").cmp_ipp_attr_contains_value_of("hi"), 1);
    EXPECT_EQ(A(0x36, 0, "hi", "en").cmp_ipp_attr_contains_value_of("hi"), 0);
    EXPECT_EQ(A(0x13, 0, "").cmp_ipp_attr_contains_value_of(""), 0);
    EXPECT_EQ(A(0x44, 0).cmp_ipp_attr_contains_value_of(""), 0);
}

TEST(AttrContains, Attributes) {
    const A range1to10(0x33, 0, 1, 10), res(0x32, 0, 300, 600, 3), kw(0x44, 0, "a4");
    const A enum34 = multi(A(0x23, 0, 3), {A(0x23, 0, 4)});
    const struct {
        const char* label;
        A self, other;
        int want;
    } cases[] = {
        {"range holds integer 10", range1to10, A(0x21, 0, 10), 1},
        {"range does not hold 11", range1to10, A(0x21, 0, 11), 0},
        {"range holds 2..10", range1to10, A(0x33, 0, 2, 10), 1},
        {"range does not hold 0..5", range1to10, A(0x33, 0, 0, 5), 0},
        {"range and enum", range1to10, A(0x23, 0, 5), 0},
        {"range without values", A(0x33, 0), A(0x21, 0, 5), 0},
        {"second range holds it", multi(A(0x33, 0, 1, 2), {A(0x33, 0, 10, 20)}), A(0x21, 0, 15), 1},
        {"enum holds 4", enum34, A(0x23, 0, 4), 1},
        {"enum does not hold 5", enum34, A(0x23, 0, 5), 0},
        {"enum and integer 4", enum34, A(0x21, 0, 4), 0},
        {"resolution equal", res, A(0x32, 0, 300, 600, 3), 1},
        {"resolution units differ", res, A(0x32, 0, 300, 600, 4), 0},
        {"keyword equal", kw, A(0x44, 0, "a4"), 1},
        {"keyword case differs", kw, A(0x44, 0, "A4"), 0},
        {"keyword and name", kw, A(0x42, 0, "a4"), 0},
        {"charset differs", A(0x47, 0, "utf-8"), A(0x47, 0, "utf-16"), 0},
        {"uri is not checked", A(0x45, 0, "ipp://a"), A(0x45, 0, "ipp://b"), 1},
        {"text is not checked", A(0x41, 0, "a"), A(0x21, 0, 1), 1},
    };
    for (const auto& c : cases) EXPECT_EQ(c.self.cmp_ipp_attr_contains_value_of(c.other), c.want) << c.label;
}

TEST(AttrValidateRange, FirstValueAgainstRegistryOrDefaults) {
    ScopedRegistry registry(attrTestTables());
    const struct {
        const char* label;
        A attr;
        int want;
    } cases[] = {
        {"enum 0 below the default 1", A(0x23, 0, 0), 0x34},
        {"enum without values counts as 0", A(0x23, 0), 0x34},
        {"registered integer 0 below 1", A(0x21, 1, 0), 0x34},
        {"registered integer 1000 above 999", A(0x21, 1, 1000), 0x34},
        {"only the first value is checked", multi(A(0x21, 1, 5), {A(0x21, 1, 5000)}), 0},
        {"integer default is the whole range", A(0x21, 0, INT32_MIN), 0},
        {"boolean 2", A(0x22, 0, 2), 0x34},
        {"registered range, lower below", A(0x33, 7, 4, 50), 0x34},
        {"registered range, upper above", A(0x33, 7, 5, 51), 0x34},
        {"nameWithLanguage, 64-character language", A(0x36, 0, "n", std::string(64, 'e').c_str()), 0x35},
        {"textWithLanguage, 1024-character text", A(0x35, 0, std::string(1024, 't').c_str(), "en"), 0x35},
        {"keyword empty, default minimum 1", A(0x44, 0, ""), 0x34},
        {"keyword of 256", A(0x44, 0, std::string(256, 'k').c_str()), 0x35},
        {"octetString measured by its bytes: 1024", octetAttr(0x30, 0, std::string(1024, '\0')), 0x35},
        {"octet 32k without entry: 32768", octetAttr(0x50, 0, std::string(32768, 'o')), 0x35},
        {"octet 32k registered 0..10", octetAttr(0x50, 8, std::string(11, 'o')), 0x35},
        {"resolution is not checked", A(0x32, 0, 0, 0, 0), 0},
        {"member is not checked", A(0x4A, 3), 0},
    };
    for (const auto& c : cases) EXPECT_EQ(c.attr.cmp_ipp_attr_validate_attr_range(), c.want) << c.label;
}

TEST(AttrToLower, FirstValueOnly) {
    const struct {
        A attr;
        std::vector<std::string> expected;
    } cases[] = {
        {multi(A(0x44, 0, "ISO_A4_210x297mm"), {A(0x44, 0, "NA_LETTER")}), {"iso_a4_210x297mm", "", "NA_LETTER", ""}},
        {A(0x35, 0, "Hello World", "EN-US"), {"hello world", "en-us"}},
        {A(0x35, 0, "", "EN"), {"", "EN"}},
        {A(0x44, 0), {}},
    };
    for (const auto& c : cases) {
        A a = c.attr;
        a.toLower();
        EXPECT_EQ(strings(a), c.expected);
    }
    char mixed[] = "MiXeD 123_Z";
    A any;
    EXPECT_EQ(any._strlwr(mixed), mixed);
    EXPECT_STREQ(mixed, "mixed 123_z");
    EXPECT_EQ(any._strlwr(nullptr), nullptr);
}

// ---- HTML ----

std::string line(const std::string& name, const std::string& type, const std::string& value, const char* end = "\n") {
    return "<font color=\"blue\">" + name + ":</font> <i>" + type + ":</i> <font color=\"red\">" + value + "</font>" +
           end;
}

TEST(AttrHtml, Lines) {
    ScopedRegistry registry(attrTestTables());
    const unsigned char date[11] = {0x07, 0xE8, 0x03, 0x05, 0x0E, 0x07, 0x09, 0x05, '+', 0x01, 0x1E};
    A withNul(0x41, 0, "x");
    withNul.m_strings[0].assignBytes("a\0b", 3);
    const struct {
        const char* label;
        A attr;
        bool lineBreak;
        std::string want;
    } cases[] = {
        {"<br> line ends, further values without a name", multi(A(0x21, 1, 1), {A(0x21, 1, -2)}), true,
         line("copies", "integer", "1", "<br>") + line("", "integer", "-2", "<br>")},
        {"member without values", A(0x4A, 3), false, "<font color=\"blue\">media-size:</font> \n"},
        {"member with a keyword", multi(A(0x4A, 3), {A(0x44, 0, "a4")}), false, line("media-size", "keyword", "a4")},
        {"begCollection, registered", A(0x34, 2), false, "<font color=\"blue\">media-col:</font> { \n"},
        {"begCollection with an own name only", named(A(0x34, 0), "my-col"), false, "{ \n"},
        {"endCollection", A(0x37, 0), true, "}<br>"},
        {"dateTime", A(0x31, 0, static_cast<void*>(const_cast<unsigned char*>(date)), 11), false,
         line("", "dateTime", "2024/3/5 14:7:9:5 +1")},
        {"dateTime never set: no NUL in the page", A(0x31, 0, static_cast<void*>(nullptr), 0), false,
         line("", "dateTime", "0/0/0 0:0:0:0 0")},
        {"boolean 2", A(0x22, 0, 2), false, line("", "boolean", "true")},
        {"resolution", A(0x32, 0, 300, 600, 3), false, line("", "resolution", "300, 600, 3")},
        {"rangeOfInteger", A(0x33, 7, 1, 100), false, line("rng", "rangeOfInteger", "1, 100")},
        {"textWithLanguage", A(0x35, 0, "hello", "en"), false, line("", "textWithLanguage", "en: hello")},
        {"keyword is not escaped", A(0x44, 9, "<b>&"), false, line("media", "keyword", "<b>&")},
        {"text keeps its stored length", withNul, false, line("", "text", "a\0b"s)},
        {"octets up to a zero byte", octetAttr(0x30, 0, "AB\0C"s), false,
         line("", "octetString with an unspecified format", "AB")},
        {"tag without a layout", A(0x43, 0, "abc"), false, line("", "unknown", "Type incorrect")},
        {"no values", A(0x21, 1), false, ""},
    };
    for (const auto& c : cases) EXPECT_EQ(text(c.attr.toHTML(c.lineBreak)), c.want) << c.label;
}

}  // namespace
