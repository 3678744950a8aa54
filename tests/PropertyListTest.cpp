#include "source/PropertyList.hpp"

#include <gtest/gtest.h>

#include "standin/kit/TestSupport.hpp"

using vt::PlistArray;
using vt::PlistData;
using vt::PlistDate;
using vt::PlistDict;
using vt::PlistValue;

namespace {

std::optional<PlistValue> parse(const std::string& text) { return vt::parsePropertyList(text.data(), text.size()); }

// A value with every type, nested.
PlistValue everything()
{
    return PlistDict {
        { "CFBundleName", "Caf\u00E9 & <Bar>" },
        { "Count", -42 },
        { "Big", int64_t(1) << 40 },
        { "Ratio", 1.5 },
        { "Yes", true },
        { "No", false },
        { "Blob", PlistData { 0, 1, 2, 0xFF } },
        { "When", PlistDate { 10.5 } },
        { "List", PlistArray { "a", 1, PlistArray {}, PlistDict { { "k", "v" } } } },
        { "Empty", PlistDict {} },
    };
}

TEST(PropertyList, ParsesEveryTypeOfAnXmlDocument)
{
    auto value = parse(R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
	<key>CFBundleName</key><string>Caf&#233; &amp; &lt;Bar&gt;</string>
	<key>Count</key><integer>-42</integer>
	<key>Big</key><integer>1099511627776</integer>
	<key>Ratio</key><real>1.5</real>
	<key>Yes</key><true/>
	<key>No</key><false/>
	<key>Blob</key><data>AAEC/w==</data>
	<key>When</key><date>2001-01-01T00:00:10Z</date>
	<key>List</key><array><string>a</string><integer>1</integer><array/><dict><key>k</key><string>v</string></dict></array>
	<key>Empty</key><dict/>
</dict>
</plist>
)");
    ASSERT_TRUE(value);
    PlistValue expected = everything();
    // XML dates carry whole seconds only.
    std::get<PlistDict>(expected.storage)["When"] = PlistDate { 10 };
    EXPECT_EQ(*value, expected);

    ASSERT_TRUE(value->find("CFBundleName"));
    EXPECT_EQ(*value->find("CFBundleName")->asString(), "Caf\u00E9 & <Bar>");
    EXPECT_EQ(value->find("Count")->asString(), nullptr);
    EXPECT_EQ(value->find("Missing"), nullptr);
    EXPECT_EQ(value->find("List")->find("k"), nullptr);
}

TEST(PropertyList, XmlAndBinaryRoundTripsKeepEveryValue)
{
    PlistValue value = everything();
    std::string binary = vt::toBinaryPropertyList(value);
    EXPECT_EQ(binary.substr(0, 8), "bplist00");
    auto fromBinary = parse(binary);
    ASSERT_TRUE(fromBinary);
    EXPECT_EQ(*fromBinary, value);

    std::string xml = vt::toXmlPropertyList(value);
    EXPECT_NE(xml.find("<plist"), std::string::npos);
    auto fromXml = parse(xml);
    ASSERT_TRUE(fromXml);
    std::get<PlistDict>(value.storage)["When"] = PlistDate { 10 };
    EXPECT_EQ(*fromXml, value);
}

TEST(PropertyList, MalformedXmlGivesNothing)
{
    for (const std::string& text : {
             std::string(),
             std::string("garbage"),
             std::string("<"),
             std::string("<plist></plist>"),
             std::string("<plist><dict><key>a</key><string>x</dict></plist>"),
             std::string("<plist><dict><string>no key</string></dict></plist>"),
             std::string("<plist><integer>12"),
             std::string("<plist><array><string>a</string>"),
             std::string("<plist><dict><key>a</key><string>x</string></plist>"),
         }) {
        EXPECT_FALSE(parse(text)) << text;
    }
    EXPECT_FALSE(vt::parsePropertyList(nullptr, 10));
}

TEST(PropertyList, TruncatedOrCorruptBinaryGivesNothingAndNeverCrashes)
{
    std::string binary = vt::toBinaryPropertyList(everything());
    for (size_t length = 0; length < binary.size(); ++length)
        EXPECT_FALSE(vt::parsePropertyList(binary.data(), length)) << "truncated to " << length;

    // Any byte overwritten: the answer may be a value or nothing, but the
    // parser must come back (the sanitizer build checks it reads nothing
    // outside the buffer).
    for (size_t at = 8; at < binary.size(); ++at) {
        for (unsigned char replacement : { 0x00, 0x7F, 0xFF }) {
            std::string corrupt = binary;
            corrupt[at] = static_cast<char>(replacement);
            (void)vt::parsePropertyList(corrupt.data(), corrupt.size());
        }
    }
    EXPECT_FALSE(parse("bplist00"));
    EXPECT_FALSE(parse("bplist00" + std::string(40, '\xFF')));
}

TEST(PropertyList, ReadsRegularFilesOnly)
{
    vt::test::TempDir dir;
    vt::test::writeFile(dir / "list.plist", vt::toBinaryPropertyList(PlistDict { { "a", 1 } }));
    auto value = vt::readPropertyListFile(dir / "list.plist");
    ASSERT_TRUE(value);
    EXPECT_EQ(*value, PlistValue(PlistDict { { "a", 1 } }));

    EXPECT_FALSE(vt::readPropertyListFile(dir / "missing.plist"));
    std::filesystem::create_directory(dir / "directory.plist");
    EXPECT_FALSE(vt::readPropertyListFile(dir / "directory.plist"));
    vt::test::writeFile(dir / "empty.plist", "");
    EXPECT_FALSE(vt::readPropertyListFile(dir / "empty.plist"));
}

} // namespace
