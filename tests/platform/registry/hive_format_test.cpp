#include "platform/registry/hive_format.h"

#include <gtest/gtest.h>

#include "platform/registry/registry.h"

namespace qb::reg {
namespace {

HiveKey MustParse(std::string_view text, std::string_view root = "HKEY_CURRENT_USER") {
  HiveKey tree;
  ParseError error;
  EXPECT_TRUE(ParseHive(text, root, &tree, &error)) << "line " << error.line << ": " << error.reason;
  return tree;
}

ParseError MustFail(std::string_view text) {
  HiveKey tree;
  ParseError error;
  EXPECT_FALSE(ParseHive(text, "HKEY_CURRENT_USER", &tree, &error));
  return error;
}

std::string Text(const HiveValue& value) { return std::string(value.data.begin(), value.data.end()); }

HiveValue Value(std::string name, DWORD type, std::vector<uint8_t> data) {
  return HiveValue{std::move(name), type, std::move(data)};
}

std::vector<uint8_t> Bytes(std::string_view s) { return std::vector<uint8_t>(s.begin(), s.end()); }

TEST(HiveFormat, ReadsEveryValueForm) {
  const HiveKey tree = MustParse(
      "\xEF\xBB\xBFWindows Registry Editor Version 5.00\r\n"
      "\r\n"
      "; a comment\r\n"
      "[HKEY_CURRENT_USER\\SOFTWARE\\Quillbox]\r\n"
      "@=\"C:\\\\Program Files\\\\Quillbox\\\\\"\r\n"
      "\"Flags\"=dword:00000003\r\n"
      "\"Short\"=dword:1f\r\n"
      "\"Timestamp\"=hex(b):08,07,06,05,04,03,02,01\r\n"
      "\"Quote \\\"q\\\"\"=\"say \\\"hi\\\"\"\r\n"
      "\"Bin\"=hex:de,ad,\\\r\n"
      "  be,ef\r\n"
      "\"Multi\"=hex(1):61,00,0a,00,62,00,00,00\r\n"
      "\"Umlaut\"=\"Gr\xC3\xBC\xC3\x9F""e\"\r\n");
  HiveKey* key = tree.FindSubkey("software")->FindSubkey("QUILLBOX");
  ASSERT_NE(key, nullptr);
  ASSERT_EQ(key->values.size(), 8u);
  EXPECT_EQ(Text(*key->FindValue("")), "C:\\Program Files\\Quillbox\\");
  EXPECT_EQ(key->FindValue("flags")->data, (std::vector<uint8_t>{3, 0, 0, 0}));
  EXPECT_EQ(key->FindValue("Short")->data, (std::vector<uint8_t>{0x1f, 0, 0, 0}));
  EXPECT_EQ(key->FindValue("Timestamp")->type, REG_QWORD);
  EXPECT_EQ(key->FindValue("Timestamp")->data, (std::vector<uint8_t>{8, 7, 6, 5, 4, 3, 2, 1}));
  EXPECT_EQ(Text(*key->FindValue("Quote \"q\"")), "say \"hi\"");
  EXPECT_EQ(key->FindValue("Bin")->data, (std::vector<uint8_t>{0xde, 0xad, 0xbe, 0xef}));
  EXPECT_EQ(key->FindValue("Multi")->type, REG_SZ);
  EXPECT_EQ(Text(*key->FindValue("Multi")), "a\nb");
  EXPECT_EQ(Text(*key->FindValue("Umlaut")), "Gr\xC3\xBC\xC3\x9F" "e");
}

TEST(HiveFormat, RoundTripKeepsTypesOrderAndEmptyKeys) {
  HiveKey root;
  HiveKey* quillbox = root.AddSubkey("SOFTWARE", nullptr)->AddSubkey("Quillbox", nullptr);
  quillbox->values = {
      Value("Zeta", REG_SZ, Bytes("back\\slash \"quoted\" ; [not a section]")),
      Value("", REG_SZ, Bytes("unnamed")),
      Value("Alpha", REG_DWORD, {0xff, 0xff, 0xff, 0xff}),
      Value("Q", REG_QWORD, {1, 2, 3, 4, 5, 6, 7, 0x80}),
      Value("Lines", REG_SZ, Bytes("one\r\ntwo")),
      Value("Expand", REG_EXPAND_SZ, Bytes("%HOME%/x")),
      Value("Big", REG_BINARY, std::vector<uint8_t>(100, 0xab)),
      Value("Odd", 0x42, {1, 2}),
      Value("Empty", REG_SZ, {}),
  };
  quillbox->AddSubkey("Profiles", nullptr)->AddSubkey("Phone X", nullptr)->AddSubkey("123", nullptr);
  root.AddSubkey("Empty Key", nullptr);

  const std::string text = SerializeHive(root, "HKEY_CURRENT_USER");
  const HiveKey back = MustParse(text);
  EXPECT_EQ(SerializeHive(back, "HKEY_CURRENT_USER"), text);
  const HiveKey* q = back.FindSubkey("SOFTWARE")->FindSubkey("Quillbox");
  ASSERT_EQ(q->values.size(), quillbox->values.size());
  for (size_t i = 0; i < q->values.size(); ++i) {
    EXPECT_EQ(q->values[i].name, quillbox->values[i].name);
    EXPECT_EQ(q->values[i].type, quillbox->values[i].type) << q->values[i].name;
    EXPECT_EQ(q->values[i].data, quillbox->values[i].data) << q->values[i].name;
  }
  EXPECT_NE(back.FindSubkey("Empty Key"), nullptr);
  EXPECT_NE(q->FindSubkey("profiles")->FindSubkey("PHONE x")->FindSubkey("123"), nullptr);
  EXPECT_NE(text.find("\"Alpha\"=dword:ffffffff\n"), std::string::npos);
  EXPECT_NE(text.find("\"Q\"=hex(b):01,02,03,04,05,06,07,80\n"), std::string::npos);
  EXPECT_NE(text.find("@=\"unnamed\"\n"), std::string::npos);
  for (size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
    EXPECT_LE(end - start, 80u) << "long line at " << start;
}

TEST(HiveFormat, OddKeyAndValueNamesRoundTrip) {
  const std::vector<std::string> names = {"a]", " lead", "trail ", "-dash", ";semi", "@", "\xC3\xBC", "q\"uote"};
  HiveKey root;
  HiveKey* parent = root.AddSubkey("Names", nullptr);
  for (const std::string& name : names) {
    parent->AddSubkey(name, nullptr)->values.push_back(Value(name, REG_SZ, Bytes(name + "\\")));
  }
  const HiveKey back = MustParse(SerializeHive(root, "HKEY_CURRENT_USER"));
  const HiveKey* names2 = back.FindSubkey("Names");
  ASSERT_NE(names2, nullptr);
  EXPECT_EQ(names2->subkeys.size(), names.size());
  for (const std::string& name : names) {
    const HiveKey* key = names2->FindSubkey(name);
    ASSERT_NE(key, nullptr) << name;
    EXPECT_EQ(key->name, name);
    ASSERT_EQ(key->values.size(), 1u) << name;
    EXPECT_EQ(key->values[0].name, name);
    EXPECT_EQ(Text(key->values[0]), name + "\\");
  }
}

TEST(HiveFormat, SubkeysEnumerateIgnoringCase) {
  const HiveKey tree = MustParse(
      "Windows Registry Editor Version 5.00\n"
      "[HKEY_CURRENT_USER\\b]\n[HKEY_CURRENT_USER\\C]\n[HKEY_CURRENT_USER\\a]\n[HKEY_CURRENT_USER\\B\\x]\n");
  std::string order;
  for (const auto& [name, key] : tree.subkeys) order += key->name;
  EXPECT_EQ(order, "abC");
  EXPECT_NE(tree.FindSubkey("b")->FindSubkey("X"), nullptr);
}

TEST(HiveFormat, ImportFormsDeleteKeysAndValues) {
  const HiveKey tree = MustParse(
      "Windows Registry Editor Version 5.00\n"
      "[HKEY_CURRENT_USER\\A]\n\"keep\"=dword:1\n\"drop\"=dword:2\n"
      "[HKEY_CURRENT_USER\\A\\Gone\\Deep]\n"
      "[-HKEY_CURRENT_USER\\A\\Gone]\n\"ignored\"=\"x\"\n"
      "[HKEY_CURRENT_USER\\A]\n\"drop\"=-\n\"keep\"=dword:7\n");
  const HiveKey* a = tree.FindSubkey("A");
  EXPECT_EQ(a->FindSubkey("Gone"), nullptr);
  ASSERT_EQ(a->values.size(), 1u);
  EXPECT_EQ(a->values[0].data[0], 7);
}

TEST(HiveFormat, EmptyFileIsAnEmptyHive) {
  const HiveKey tree = MustParse("");
  EXPECT_TRUE(tree.subkeys.empty());
  EXPECT_TRUE(MustParse("\n\n").subkeys.empty());
}

TEST(HiveFormat, FaultsNameTheirLine) {
  EXPECT_EQ(MustFail("REGEDIT4\n").line, 1);
  EXPECT_EQ(MustFail("Windows Registry Editor Version 5.00\n\"x\"=dword:1\n").line, 2);
  EXPECT_EQ(MustFail("Windows Registry Editor Version 5.00\n[HKEY_LOCAL_MACHINE\\A]\n").line, 2);
  const std::string head = "Windows Registry Editor Version 5.00\n[HKEY_CURRENT_USER\\A]\n";
  EXPECT_EQ(MustFail(head + "\"x\"=dword:123456789\n").line, 3);
  EXPECT_EQ(MustFail(head + "\"x\"=dword:xyz\n").line, 3);
  EXPECT_EQ(MustFail(head + "\"x\"=\"unterminated\n").line, 3);
  EXPECT_EQ(MustFail(head + "\"x\"=\"a\" trailing\n").line, 3);
  EXPECT_EQ(MustFail(head + "\"x\"=hex(b):01,zz\n").line, 3);
  EXPECT_EQ(MustFail(head + "\"x\"=hex(1):61\n").line, 3);
  EXPECT_EQ(MustFail(head + "\"x\"=qword:1\n").line, 3);
  EXPECT_EQ(MustFail(head + "\"x\" dword:1\n").line, 3);
  EXPECT_EQ(MustFail(head + "garbage\n").line, 3);
  EXPECT_EQ(MustFail(head + "[HKEY_CURRENT_USER\\A\n").line, 3);
  EXPECT_EQ(MustFail(head + "[HKEY_CURRENT_USER\\\\A]\n").line, 3);
  EXPECT_EQ(MustFail(std::string("Windows Registry Editor Version 5.00\n\0", 38)).line, 1);
}

TEST(HiveFormat, BadLinesAreSkippedAndListed) {
  const std::string text =
      "Windows Registry Editor Version 5.00\n"
      "[HKEY_CURRENT_USER\\A]\n"
      "\"good\"=dword:00000001\n"
      "\"bad\"=dword:xyz\n"                  // line 4
      "[HKEY_LOCAL_MACHINE\\B]\n"            // line 5: a section outside the root...
      "\"lost\"=dword:00000002\n"            // line 6: ...leaves no section open
      "[HKEY_CURRENT_USER\\C]\n"
      "\"kept\"=\"yes\"\n";
  HiveKey tree;
  ParseError error;
  std::vector<ParseError> skipped;
  ASSERT_TRUE(qb::reg::ParseHive(text, "HKEY_CURRENT_USER", &tree, &error, &skipped));
  ASSERT_EQ(skipped.size(), 3u);
  EXPECT_EQ(skipped[0].line, 4);
  EXPECT_EQ(skipped[1].line, 5);
  EXPECT_EQ(skipped[2].line, 6);
  ASSERT_NE(tree.FindSubkey("A"), nullptr);
  EXPECT_NE(tree.FindSubkey("A")->FindValue("good"), nullptr);
  EXPECT_EQ(tree.FindSubkey("A")->FindValue("bad"), nullptr);
  EXPECT_EQ(tree.FindSubkey("A")->FindValue("lost"), nullptr);
  ASSERT_NE(tree.FindSubkey("C"), nullptr);
  EXPECT_NE(tree.FindSubkey("C")->FindValue("kept"), nullptr);
  // A file that is no hive is still refused as a whole.
  EXPECT_FALSE(qb::reg::ParseHive("REGEDIT4\n", "HKEY_CURRENT_USER", &tree, &error, &skipped));
}

TEST(HiveFormat, CommentEndingInBackslashEndsThere) {
  const HiveKey tree = MustParse(
      "Windows Registry Editor Version 5.00\n[HKEY_CURRENT_USER\\A]\n; C:\\temp\\\n\"next\"=dword:00000001\n"
      "\"wrapped\"=hex:01,\\\n  02\n");
  const HiveKey* a = tree.FindSubkey("A");
  ASSERT_NE(a, nullptr);
  EXPECT_NE(a->FindValue("next"), nullptr) << "the line after the comment is read";
  ASSERT_NE(a->FindValue("wrapped"), nullptr);
  EXPECT_EQ(a->FindValue("wrapped")->data, (std::vector<uint8_t>{1, 2}));
}

TEST(HiveFormat, MachineRootIsItsOwn) {
  const HiveKey tree = MustParse("Windows Registry Editor Version 5.00\n[HKEY_LOCAL_MACHINE\\SOFTWARE]\n",
                                 "HKEY_LOCAL_MACHINE");
  EXPECT_NE(tree.FindSubkey("SOFTWARE"), nullptr);
}

}  // namespace
}  // namespace qb::reg
