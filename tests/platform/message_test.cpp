// The text form of messages and protected strings: whatever a field holds comes back, whatever cannot be read
// is refused with a reason, and a secret never stands in clear where it is stored.
#include <algorithm>
#include <clocale>
#include <cstdlib>

#include "lqregistry/CNMessageBase.h"
#include "lqregistry/ObLog.h"
#include "tests/support/expectations.h"

namespace {

struct Point : MessageClass<Point, 90, 1> {
  static constexpr const char* kClassName = "Test.Point";
  Field<std::int64_t, 1, 1> x;
  Field<std::string, 2, 2> label;
  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&Point::x>("x"), field<&Point::label>("label")};
    return list;
  }
};

// Every kind of field, and itself below itself.
struct Tree : MessageClass<Tree, 90, 2> {
  static constexpr const char* kClassName = "Test.Tree";
  Field<std::string, 1, 1> text;
  Field<std::int64_t, 2, 2> number;
  Field<pstring, 3, 3> secret;
  Field<Point, 4, 4> point;
  Field<std::vector<Tree>, 5, 5> children;
  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&Tree::text>("text"), field<&Tree::number>("number"),
                                         field<&Tree::secret>("secret"), field<&Tree::point>("point"),
                                         field<&Tree::children>("children")};
    return list;
  }
};

class MessageTest : public testing::Test {
 protected:
  MessageTest() {
    registerMessageClasses<Point, Tree>();
    EXPECT_FALSE(pstring::CreateKeyFile(dir_ / "protection.key").IsError());
    pstring::UseKeyFile(dir_ / "protection.key");
  }

  static Tree reread(const std::string& text) {
    Tree tree;
    std::string error;
    EXPECT_EQ(tree.unserialize(text, &error), 0) << error;
    return tree;
  }

  TempDir dir_;
};

// --- values ------------------------------------------------------------------------------------------------

bool isValidUtf8(const std::string& text) {
  std::setlocale(LC_CTYPE, "C.UTF-8");
  return std::mbstowcs(nullptr, text.c_str(), 0) != static_cast<std::size_t>(-1);
}

TEST_F(MessageTest, EveryTextComesBackFromEveryFieldAndForm) {
  const std::string texts[] = {"",
                               everyByte(),
                               "\nfirst\r\nsecond\rthird\n\n",
                               "  \t padded \t  ",
                               "   ",
                               R"(C:\x41\\server\share\)",
                               R"(<a b="c">&amp;&#65;]]><!-- 'x' --></a><?pi?>)",
                               "cut UTF-8 \xe2\x82",
                               "overlong UTF-8 \xc0\xaf\xe0\x80\xaf",
                               "surrogates \xed\xa0\x80 \xef\xbf\xbe \xf5\x80\x80\x80",
                               "other scripts \xc3\xbc \xe2\x82\xac \xf0\x9f\x8c\x8d \xc2\x85",
                               "clear:V8:",
                               std::string(100'000, '\x01')};
  for (const std::string& bytes : texts) {
    Tree tree;
    tree.text = bytes;
    tree.secret = pstring(bytes);
    tree.point.edit().label = bytes;
    tree.children.edit().emplace_back().text = bytes;
    std::string stored;
    std::string revealed;
    std::string forPeople;
    ASSERT_EQ(tree.serialize(stored, false), 0);
    ASSERT_EQ(tree.serialize(revealed, true), 0);
    ASSERT_EQ(tree.serializeForPeople(forPeople), 0);
    for (const std::string& text : {stored, revealed, forPeople}) {
      EXPECT_TRUE(isValidUtf8(text)) << bytes;
      EXPECT_TRUE(
          std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 && c != '\n'; }));
      EXPECT_TRUE(reread(text).equals(tree)) << bytes;
    }
    EXPECT_TRUE(reread(stored).secret->reveal() == bytes) << bytes;
  }
}

TEST_F(MessageTest, TellsSetFromUnset) {
  const Tree unset;
  Tree set;
  set.text = "";
  set.number = 0;
  set.secret = pstring();
  set.point.edit();
  set.children.edit();
  EXPECT_FALSE(set.equals(unset));
  Tree longer = set;
  longer.children.edit().emplace_back();
  EXPECT_FALSE(set.equals(longer) || longer.equals(set));
  std::string forPeople;
  EXPECT_EQ(longer.serializeForPeople(forPeople), 0);
  EXPECT_EQ(forPeople,
            "<Test.Tree text=\"\" number=\"0\" secret=\"\">\n  <point />\n  <children>\n    <Test.Tree />\n"
            "  </children>\n</Test.Tree>\n");
  for (const Tree* tree : {&unset, static_cast<const Tree*>(&set)}) {
    std::string text;
    ASSERT_EQ(tree->serialize(text, false), 0);
    const Tree back = reread(text);
    EXPECT_TRUE(back.equals(*tree)) << text;
    EXPECT_FALSE(back.point->x.isSet());
    EXPECT_EQ(back.number, 0);
  }
  set.number.clear();
  EXPECT_FALSE(set.number.isSet());
}

// --- what is read ------------------------------------------------------------------------------------------

TEST_F(MessageTest, SkipsWhatItDoesNotKnow) {
  std::string deep;
  for (int i = 0; i < 400'000; ++i) deep += i < 200'000 ? "<deep>" : "</deep>";
  const Tree tree =
      reread("<?xml version=\"1.0\"?><!-- a comment --><Test.Tree later=\"7\" number=\"5\">" + deep +
             "<unknown a=\"b\">text</unknown><children> <!-- none --> </children></Test.Tree>");
  EXPECT_EQ(tree.number, 5);
  EXPECT_TRUE(tree.children.isSet() && tree.children->empty());
  EXPECT_FALSE(tree.text.isSet());
}

std::string nested(int levels) {
  std::string text = "<Test.Tree/>";
  for (int i = 1; i < levels; ++i) text = "<Test.Tree><children>" + text + "</children></Test.Tree>";
  return text;
}

TEST_F(MessageTest, RefusesWhatItCannotReadAndStaysAsItWas) {
  // The text, and what the reason has to say.
  const std::pair<std::string, std::string> cases[] = {
      {"", "broken XML"},
      {"no markup at all", "broken XML"},
      {"<Test.Tree number=\"1\"", "broken XML"},
      {"<Test.Tree><children></Test.Tree>", "broken XML"},
      {"<!-- nothing else -->", "element"},
      {"<Test.Nobody/>", "Test.Nobody"},
      {"<Test.Point x=\"1\"/>", "Test.Point"},
      {"<Test.Tree number=\"\"/>", "Test.Tree.number"},
      {"<Test.Tree number=\"12x\"/>", "Test.Tree.number"},
      {"<Test.Tree number=\" 12\"/>", "Test.Tree.number"},
      {"<Test.Tree number=\"9223372036854775808\"/>", "Test.Tree.number"},
      {"<Test.Tree text=\"\\q00\"/>", "Test.Tree.text"},
      {"<Test.Tree text=\"cut \\x4\"/>", "Test.Tree.text"},
      {"<Test.Tree text=\"capital \\x4A\"/>", "Test.Tree.text"},
      {"<Test.Tree secret=\"in clear\"/>", "Test.Tree.secret"},
      {"<Test.Tree secret=\"clear:\\x\"/>", "Test.Tree.secret"},
      {"<Test.Tree><point x=\"one\"/></Test.Tree>", "Test.Point.x"},
      {"<Test.Tree><children><Test.Point/></children></Test.Tree>", "Test.Tree.children"},
      {nested(kMaxMessageDepth + 1), "too deep"}};
  Tree tree;
  tree.text = "as it was";
  const Tree before = tree;
  for (const auto& [text, named] : cases) {
    std::string error;
    EXPECT_NE(tree.unserialize(text, &error), 0) << text;
    EXPECT_TRUE(contains(error, named)) << text << " gave: " << error;
    EXPECT_TRUE(tree.equals(before)) << text;
    if (named == "Test.Point") continue;
    std::unique_ptr<CNMessageBase> built = std::make_unique<Point>();
    EXPECT_EQ(CNMessageBase::fromText(text, built).GetCode(), kLqErrBadMessage) << text;
    EXPECT_EQ(built, nullptr);
  }
  EXPECT_EQ(tree.unserialize(nested(kMaxMessageDepth)), 0);
}

// --- what reading takes ------------------------------------------------------------------------------------

// Notes, whenever a thousand are made, what the process uses.
struct Probe : MessageClass<Probe, 90, 3> {
  static constexpr const char* kClassName = "Test.Probe";
  Field<std::string, 1, 1> name;
  Field<std::string, 2, 2> value;
  Field<std::int64_t, 3, 3> flag;
  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&Probe::name>("name"), field<&Probe::value>("value"),
                                         field<&Probe::flag>("flag")};
    return list;
  }
  Probe() {
    if (made == 100'500) throw std::bad_alloc();  // as if all memory were taken by others
    if (made++ % 1000 == 0) seen.push_back(memoryInUse());
  }
  static inline std::vector<std::size_t> seen;
  static inline std::size_t made = 0;
};
struct Probes : MessageClass<Probes, 90, 4> {
  static constexpr const char* kClassName = "Test.Probes";
  Field<std::vector<Probe>, 1, 1> list;
  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo all[] = {field<&Probes::list>("list")};
    return all;
  }
};

std::string probes(std::size_t count, const std::string& record) {
  std::string text = "<Test.Probes><list>";
  for (std::size_t i = 0; i < count; ++i) text += record;
  return text + "</list></Test.Probes>";
}

TEST_F(MessageTest, ReadingTakesBoundedMemory) {
  registerMessageClasses<Probe, Probes>();
  const std::string empty = "<Test.Probe/>";
  const std::string shortest = R"(<Test.Probe name="a" value="1" flag="0"/>)";
  const std::string ordinary =
      "<Test.Probe name=\"sValueOfSomeKind\" value=\"" + std::string(20, 'v') + "\" flag=\"1\"/>";
  const auto unknown = [](const std::string& text) { return "<Test.Probes>" + text + "</Test.Probes>"; };
  // The text, and why it is not read; empty when it is.
  const std::pair<std::string, const char*> cases[] = {
      {probes(100'000, ordinary), ""},
      {probes(100'000, shortest), ""},
      {probes(50'000, empty), ""},
      {probes(kMaxMessageRecords, empty), "times the memory"},
      {probes(kMaxMessageRecords + 1, ordinary), "more than 500000 records"},
      {unknown(probes(3'000'000, "<a/>")), "times the memory"},
      {unknown(probes(200'000, "<a b='' b='' b='' b='' b='' b='' b='' b='' b=''/>")), "times the memory"},
      {unknown(probes(1'000'000, "x<" + std::string(16, 'b') + "/>")), "times the memory"},
      {unknown(probes(2'000'000, "<b/>xxxxx>")), "times the memory"},
      {probes(101'000, ordinary), "not enough memory"}};
  for (const auto& [text, reason] : cases) {
    // A sanitizer has a heap of its own, which is not measured, and takes minutes for the large ones.
    if (kIsSanitized && text.size() > kReadAllowanceBytes / 2) continue;
    Probe::seen.clear();
    Probe::made = 0;
    std::string buffer = text;
    std::unique_ptr<CNMessageBase> message;
    const std::size_t before = memoryInUse();
    const CWmError error = CNMessageBase::fromBuffer(buffer, message);
    EXPECT_NE(std::string(error.AsString()).find(reason), std::string::npos) << error.AsString();
    ASSERT_EQ(error.IsError(), *reason != '\0') << text.substr(0, 80) << error.AsString();
    if (error.IsError()) continue;
    const std::size_t most = *std::max_element(Probe::seen.begin(), Probe::seen.end());
    EXPECT_LE(most, before + (kMaxReadFactor - 1) * text.size() + kReadAllowanceBytes) << text.substr(0, 80);
    EXPECT_LE(Probe::seen.back(), Probe::seen.front()) << "the tree is still there";
    Probe::seen.clear();
    Probe::made = 0;
    std::size_t records = 0;
    EXPECT_TRUE(Probes().isReadable(text, records));
    EXPECT_LE(Probe::seen.back(), Probe::seen.front()) << "what is only counted was kept";
  }
}

// --- protected strings -------------------------------------------------------------------------------------

TEST_F(MessageTest, AStoredTextNeverHoldsTheSecret) {
  Tree tree;
  tree.secret = pstring("hunter2-hunter2");
  tree.children.edit().emplace_back().secret = pstring("hunter2-hunter2");
  std::string text;
  ASSERT_EQ(tree.serialize(text, false), 0);
  EXPECT_FALSE(contains(text, "hunter2") || contains(text, "clear:")) << text;
  EXPECT_EQ(reread(text).children->at(0).secret->reveal(), "hunter2-hunter2");
  std::size_t records = 0;
  EXPECT_TRUE(tree.isReadable(text, records) && records == 1);

  ASSERT_EQ(tree.serialize(text, true), 0);
  EXPECT_NE(text.find("clear:hunter2-hunter2"), std::string::npos);

  pstring::UseKeyFile(dir_ / "lost.key");
  std::string kept = "unchanged";
  EXPECT_TRUE(tree.serialize(kept, false) != 0 && kept == "unchanged") << kept;
  EXPECT_EQ(tree.serialize(kept, true), 0) << "needs no key";
  EXPECT_FALSE(std::filesystem::exists(dir_ / "lost.key"));
}

TEST_F(MessageTest, OneThatCannotBeOpenedIsKeptAsItStandsAndNeverTold) {
  Tree tree;
  for (const std::string& text : {"V8:" + std::string(40, 'A'), std::string("V8:not base64")}) {
    ASSERT_EQ(tree.unserialize("<Test.Tree secret=\"" + text + "\"/>"), 0) << text;
    const pstring& secret = tree.secret.get();
    EXPECT_TRUE(secret.isUnreadable() && !secret.empty() && secret.reveal().empty()) << text;
    EXPECT_EQ(secret.getV8Password(), text);
    EXPECT_FALSE(secret == pstring());

    pstring copied("another");
    copied = secret;
    pstring moved(std::move(copied));
    EXPECT_TRUE(copied.empty());
    copied = pstring(moved);
    EXPECT_EQ(copied.getV8Password(), text);
    copied = pstring("readable");
    EXPECT_FALSE(copied.isUnreadable());

    std::string xml;
    ASSERT_EQ(tree.serialize(xml, false), 0);
    EXPECT_TRUE(contains(xml, text));
    EXPECT_NE(tree.serialize(xml, true), 0) << "it would be told as empty";
  }
}

}  // namespace
