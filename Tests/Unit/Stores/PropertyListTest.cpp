#include <array>
#include <clocale>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "Common/Platform/PropertyListSerialization.h"

namespace utilia::platform {
namespace {

constexpr std::string_view kHead = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                   "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                                   "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                                   "<plist version=\"1.0\">\n";
constexpr std::string_view kTail = "</plist>\n";

Result<Value> readText(std::string_view text) {
    return propertyListFromData({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

Result<Value> readElement(std::string_view element) {
    return readText(std::string(kHead) + std::string(element) + std::string(kTail));
}

std::string xmlElementOf(const Value& value) {
    const auto xml = dataFromPropertyList(value, PropertyListFormat::Xml);
    if (!xml) return xml.error().description;
    const std::string text(xml->begin(), xml->end());
    EXPECT_TRUE(text.starts_with(kHead) && text.ends_with(kTail));
    return text.substr(kHead.size(), text.size() - kHead.size() - kTail.size());
}

void expectRoundTrip(const Value& value, PropertyListFormat format) {
    const auto bytes = dataFromPropertyList(value, format);
    ASSERT_TRUE(bytes) << bytes.error().description;
    const auto read = propertyListFromData(*bytes);
    ASSERT_TRUE(read) << read.error().description;
    EXPECT_EQ(read->type(), value.type());
    EXPECT_TRUE(*read == value);
}

Value nested(std::size_t depth) {
    Value value = Array();
    for (std::size_t i = 1; i < depth; ++i) value = Array{value};
    return value;
}

Value everything() {
    return Dictionary{
        {"zero", 0},
        {"negative", -1},
        {"lowest", std::numeric_limits<std::int64_t>::min()},
        {"highest", std::numeric_limits<std::int64_t>::max()},
        {"beyond", std::numeric_limits<std::uint64_t>::max()},
        {"first beyond", std::uint64_t{1} << 63},
        {"half", 0.5},
        {"tenth", 0.1},
        {"three", 3.0},
        {"huge", 1e300},
        {"infinity", std::numeric_limits<double>::infinity()},
        {"true", true},
        {"false", false},
        {"one", 1},
        {"real one", 1.0},
        {"empty", ""},
        {"text", "a<b>&\"c'\n\td\r "},
        {"Grüße", "\xF0\x9F\x98\x80 und \xE2\x82\xAC"},
        {"data", Data{0, 1, 2, 253, 254, 255}},
        {"no data", Data()},
        {"date", Date{636613567}},
        {"far date", Date{63113904000}},
        {"early date", Date{-63113904000}},
        {"array", Array{1, Array(), Dictionary(), "two", Array{true, false, true}}},
        {"dictionary", Dictionary{{"b", 1}, {"a", Dictionary{{"c", 2}}}}},
    };
}

TEST(PropertyList, EveryTypeReadsBackAsItselfFromBothForms) {
    expectRoundTrip(everything(), PropertyListFormat::Binary);
    expectRoundTrip(everything(), PropertyListFormat::Xml);
}

TEST(PropertyList, TheBinaryFormKeepsTheOrderOfKeys) {
    const Value value = Dictionary{{"b", 1}, {"a", 2}, {"c", 3}};
    const auto read =
        propertyListFromData(*dataFromPropertyList(value, PropertyListFormat::Binary));
    ASSERT_TRUE(read);
    std::string order;
    for (const auto& [key, element] : *read->dictionary()) order += key;
    EXPECT_EQ(order, "bac");
}

TEST(PropertyList, TheBinaryFormKeepsEveryBitOfADate) {
    expectRoundTrip(Date{736613567.123456789}, PropertyListFormat::Binary);
    expectRoundTrip(Date{-0.1}, PropertyListFormat::Binary);
    expectRoundTrip(Date{1e17}, PropertyListFormat::Binary);
}

TEST(PropertyList, TheXmlFormCutsTheFractionOfADate) {
    EXPECT_EQ(xmlElementOf(Date{0.9}), "<date>2001-01-01T00:00:00Z</date>\n");
    EXPECT_EQ(xmlElementOf(Date{86399.999}), "<date>2001-01-01T23:59:59Z</date>\n");
}

TEST(PropertyList, TheXmlFormWritesRealsWithUpToSeventeenDigits) {
    EXPECT_EQ(xmlElementOf(0.1), "<real>0.10000000000000001</real>\n");
    EXPECT_EQ(xmlElementOf(3.0), "<real>3</real>\n");
    EXPECT_EQ(xmlElementOf(0.0), "<real>0.0</real>\n");
    EXPECT_EQ(xmlElementOf(-2.5), "<real>-2.5</real>\n");
    EXPECT_EQ(xmlElementOf(1e300), "<real>1.0000000000000001e+300</real>\n");
    EXPECT_EQ(xmlElementOf(std::nan("")), "<real>nan</real>\n");
    EXPECT_EQ(xmlElementOf(-std::numeric_limits<double>::infinity()), "<real>-infinity</real>\n");
}

TEST(PropertyList, TheXmlFormSortsKeysAsUtf16) {
    const Value value =
        Dictionary{{"b", 1}, {"\xEF\xBD\xA1", 2}, {"\xF0\x9F\x98\x80", 3}, {"B", 4}, {"a", 5}};
    EXPECT_EQ(
        xmlElementOf(value),
        "<dict>\n\t<key>B</key>\n\t<integer>4</integer>\n\t<key>a</key>\n\t<integer>5</integer>\n"
        "\t<key>b</key>\n\t<integer>1</integer>\n\t<key>\xF0\x9F\x98\x80</key>\n\t<integer>3</"
        "integer>\n"
        "\t<key>\xEF\xBD\xA1</key>\n\t<integer>2</integer>\n</dict>\n");
}

TEST(PropertyList, TheXmlFormBreaksDataIntoLinesOf76ColumnsWithTheIndent) {
    const Data data(100, 0);
    EXPECT_EQ(xmlElementOf(data),
              "<data>\n" + std::string(76, 'A') + "\n" + std::string(58, 'A') + "==\n</data>\n");
    EXPECT_EQ(xmlElementOf(Array{data}), "<array>\n\t<data>\n\t" + std::string(68, 'A') + "\n\t" +
                                             std::string(66, 'A') + "==\n\t</data>\n</array>\n");
}

TEST(PropertyList, TheXmlFormEscapesThreeCharactersAndNoOther) {
    EXPECT_EQ(xmlElementOf("<a href=\"x\">'&'</a>"),
              "<string>&lt;a href=\"x\"&gt;'&amp;'&lt;/a&gt;</string>\n");
}

TEST(PropertyList, RealsAreReadWithAPointWhateverTheLocale) {
    // Where no locale with a comma is installed, the point is what is left to be tested.
    const std::string before = std::setlocale(LC_NUMERIC, nullptr);
    for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8"}) {
        if (std::setlocale(LC_NUMERIC, name)) break;
    }
    const auto value = readElement("<real>2.5</real>");
    EXPECT_EQ(xmlElementOf(2.5), "<real>2.5</real>\n");
    std::setlocale(LC_NUMERIC, before.c_str());
    ASSERT_TRUE(value);
    EXPECT_EQ(*value->real(), 2.5);
}

TEST(PropertyList, AcceptsWhatOthersWriteAsXml) {
    struct Case {
        const char* element;
        Value value;
    };
    const Case cases[] = {
        {"<true></true>", true},
        {"<true />", true},
        {"<!-- a comment --><string>a</string><!-- another -->", "a"},
        {"<string>  a b\n </string>", "  a b\n "},
        {"<string/>", ""},
        {"<string>a<![CDATA[<b>&]]>c</string>", "a<b>&c"},
        {"<string>a<!-- x -->b</string>", "ab"},
        {"<string>&#65;&#x1F600;&apos;&quot;&lt;&gt;&amp;</string>", "A\xF0\x9F\x98\x80'\"<>&"},
        {"<integer> 12 </integer>", 12},
        {"<integer>+12</integer>", 12},
        {"<integer>0x10</integer>", 16},
        {"<integer>-0x10</integer>", -16},
        {"<integer>18446744073709551615</integer>", std::numeric_limits<std::uint64_t>::max()},
        {"<real>+1e3</real>", 1000.0},
        {"<real>inf</real>", std::numeric_limits<double>::infinity()},
        {"<data>AA\n\t EC</data>", Data{0, 1, 2}},
        {"<data>AQ==</data>", Data{1}},
        {"<data/>", Data()},
        {"<dict/>", Dictionary()},
        {"<dict><key/><true/></dict>", Dictionary{{"", true}}},
        {"<dict><key>a</key><integer>1</integer><key>a</key><integer>2</integer></dict>",
         Dictionary{{"a", 2}}},
        {"<dict><key>CF$UID</key><integer>1</integer></dict>", Dictionary{{"CF$UID", 1}}},
        {"<array> <true/> <?pi?> <false/> </array>", Array{true, false}},
        {"<date>4001-01-01T00:00:00Z</date>", Date{63113904000}},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.element);
        const auto value = readElement(one.element);
        ASSERT_TRUE(value) << value.error().description;
        EXPECT_TRUE(*value == one.value);
    }
}

TEST(PropertyList, AcceptsOtherFramesOfXml) {
    for (const char* text :
         {"<plist><true/></plist>", "\xEF\xBB\xBF<plist version=\"1.0\"><true/></plist>",
          "\n <?xml version='1.0' encoding='utf-8'?>\n<!-- c --><plist>\n<true/></plist>\n<!-- end "
          "-->"}) {
        EXPECT_TRUE(readText(text)) << text;
    }
}

TEST(PropertyList, RefusesXmlThatIsNotOneWholePropertyList) {
    for (const char* element : {"",
                                "text",
                                "<string>a</string><string>b</string>",
                                "<string>a",
                                "<string>a</wrong>",
                                "<string>a</string",
                                "<string><b/></string>",
                                "<string>a & b</string>",
                                "<string>&bogus;</string>",
                                "<string>&#0;</string>",
                                "<string>&#xD800;</string>",
                                "<string>&#x110000;</string>",
                                "<string>&#;</string>",
                                "<string>a\xFFz</string>",
                                "<key>a</key>",
                                "<unknown/>",
                                "</array>",
                                "<array>",
                                "<array><true></array>",
                                "<array>text</array>",
                                "<dict><string>a</string></dict>",
                                "<dict><key>a</key></dict>",
                                "<dict><key>a</key><key>b</key></dict>",
                                "<dict><true/></dict>",
                                "<integer></integer>",
                                "<integer/>",
                                "<integer>1.5</integer>",
                                "<integer>0x</integer>",
                                "<integer>- 1</integer>",
                                "<integer>18446744073709551616</integer>",
                                "<integer>-9223372036854775809</integer>",
                                "<real>abc</real>",
                                "<real></real>",
                                "<real>1e999</real>",
                                "<real>1,5</real>",
                                "<real>++1</real>",
                                "<date>garbage</date>",
                                "<date>2021-02-30T00:00:00Z</date>",
                                "<date>2021-01-01T24:00:00Z</date>",
                                "<date>2021-01-01 00:00:00Z</date>",
                                "<date/>",
                                "<data>A</data>",
                                "<data>AA=A</data>",
                                "<data>A===</data>",
                                "<data>AAEC!</data>",
                                "<data>====</data>",
                                "<true>x</true>",
                                "<string a=\"b\">c</string>"}) {
        const auto value = readElement(element);
        ASSERT_FALSE(value) << element;
        EXPECT_EQ(value.error().code, 3840) << element;
    }
}

TEST(PropertyList, RefusesOtherDocuments) {
    using namespace std::string_literals;
    for (const std::string& text :
         {""s, "bplist00"s, "bplist01xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"s, "{ a = b; }"s,
          "<html/>"s, "<plist/>"s, "<plistx><true/></plistx>"s, "<plist><true/>"s,
          "<plist><true/></plist>more"s,
          "<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><string>&a;</string></plist>"s,
          "<?xml version=\"1.0\" encoding=\"UTF-16\"?><plist><true/></plist>"s,
          "<plist><string>a\0b</string></plist>"s}) {
        const auto value = readText(text);
        ASSERT_FALSE(value) << text;
        EXPECT_EQ(value.error().code, 3840);
    }
}

TEST(PropertyList, AnErrorInXmlNamesItsLine) {
    EXPECT_EQ(readText("<plist>\n<array>\n<true/>\n<wrong>x</wrong>\n</array></plist>")
                  .error()
                  .description,
              "XML property list: line 4: an element that is unknown, or cannot hold this");
}

TEST(PropertyList, NestingIsBoundedAlikeInBothFormsAndDirections) {
    for (const auto format : {PropertyListFormat::Binary, PropertyListFormat::Xml}) {
        expectRoundTrip(nested(kPropertyListMaximumDepth), format);
        const auto tooDeep = dataFromPropertyList(nested(kPropertyListMaximumDepth + 1), format);
        ASSERT_FALSE(tooDeep);
        EXPECT_EQ(tooDeep.error().code, 3852);
    }
    std::string deep = "<plist>";
    for (int i = 0; i < 513; ++i) deep += "<array>";
    for (int i = 0; i < 513; ++i) deep += "</array>";
    EXPECT_FALSE(readText(deep + "</plist>"));
}

TEST(PropertyList, RefusesToWriteWhatItCouldNotRead) {
    using namespace std::string_literals;
    for (const Value& value : {Value("a\0b"s), Value("\xFF"), Value(Dictionary{{"\xC0\x80", 1}}),
                               Value(Dictionary{{"\0"s, 1}}), Value(Date{std::nan("")}),
                               Value(Array{Date{std::numeric_limits<double>::infinity()}}),
                               Value(Data(kPropertyListMaximumSize + 1)), Value(Array{nullptr})}) {
        for (const auto format : {PropertyListFormat::Binary, PropertyListFormat::Xml}) {
            const auto bytes = dataFromPropertyList(value, format);
            ASSERT_FALSE(bytes);
            EXPECT_EQ(bytes.error().code, 3852);
        }
    }
}

TEST(PropertyList, RefusesWhatOnlyXmlCannotHold) {
    for (const Value& value : {Value("\x01"), Value("\xEF\xBF\xBE"), Value("\xEF\xBF\xBF"),
                               Value(Date{1e12}), Value(Date{-1e12})}) {
        EXPECT_TRUE(dataFromPropertyList(value, PropertyListFormat::Binary));
        EXPECT_FALSE(dataFromPropertyList(value, PropertyListFormat::Xml));
    }
}

TEST(PropertyList, SharedContentUnfoldsToABound) {
    // A hundred thousand times one text of a thousand bytes is a small file and a large tree.
    Array array;
    const Value text(std::string(1000, 'x'));
    for (int i = 0; i < 100'000; ++i) array.append(text);
    EXPECT_FALSE(dataFromPropertyList(array, PropertyListFormat::Binary));
}

TEST(PropertyList, AnUnsharedFileOfTheLargestSizeIsRead) {
    Array array;
    for (int i = 0; i < 300'000; ++i) array.append(i);
    expectRoundTrip(array, PropertyListFormat::Binary);
    expectRoundTrip(Data(kPropertyListMaximumSize - 100), PropertyListFormat::Binary);
}

}  // namespace
}  // namespace utilia::platform
