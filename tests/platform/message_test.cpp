// The text form of messages and protected strings: whatever a field holds comes back, whatever cannot be read
// is refused with a reason, and a secret never stands in clear where it is stored.
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <set>

#include "lqregistry/CNMessageBase.h"
#include "lqregistry/ObLog.h"
#include "tests/support/test_support.h"

namespace {

using test_support::readFile;
using test_support::TempDir;
using test_support::writeFile;

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

std::string everyByteButNul() {
  std::string bytes;
  for (int byte = 1; byte < 256; ++byte) bytes += static_cast<char>(byte);
  return bytes;
}

// --- values ------------------------------------------------------------------------------------------------

bool isValidUtf8(const std::string& text) {
  std::setlocale(LC_CTYPE, "C.UTF-8");
  return std::mbstowcs(nullptr, text.c_str(), 0) != static_cast<std::size_t>(-1);
}

TEST_F(MessageTest, EveryTextComesBackFromEveryFieldAndForm) {
  const std::string texts[] = {"",
                               everyByteButNul(),
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
                               std::string(300'000, '\x01')};
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
  EXPECT_TRUE(tree.children.isSet());
  EXPECT_TRUE(tree.children->empty());
  EXPECT_FALSE(tree.text.isSet());
}

std::string nested(int levels) {
  std::string text = "<Test.Tree/>";
  for (int i = 1; i < levels; ++i) text = "<Test.Tree><children>" + text + "</children></Test.Tree>";
  return text;
}

TEST_F(MessageTest, RefusesWhatItCannotReadAndStaysAsItWas) {
  struct Case {
    std::string text;
    std::string named;  // what the reason has to say
  };
  const Case cases[] = {{"", "broken XML"},
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
                        {"<Test.Tree text=\"\\q\"/>", "Test.Tree.text"},
                        {"<Test.Tree text=\"cut \\x4\"/>", "Test.Tree.text"},
                        {"<Test.Tree secret=\"in clear\"/>", "Test.Tree.secret"},
                        {"<Test.Tree secret=\"clear:\\x\"/>", "Test.Tree.secret"},
                        {"<Test.Tree><point x=\"one\"/></Test.Tree>", "Test.Point.x"},
                        {"<Test.Tree><children><Test.Point/></children></Test.Tree>", "Test.Tree.children"},
                        {nested(kMaxMessageDepth + 1), "too deep"}};
  Tree tree;
  tree.text = "as it was";
  const Tree before = tree;
  for (const Case& c : cases) {
    std::string error;
    EXPECT_NE(tree.unserialize(c.text, &error), 0) << c.text;
    EXPECT_NE(error.find(c.named), std::string::npos) << c.text << " gave: " << error;
    EXPECT_TRUE(tree.equals(before)) << c.text;
    std::unique_ptr<CNMessageBase> built = std::make_unique<Point>();
    if (c.named != "Test.Point") {
      EXPECT_EQ(CNMessageBase::fromText(c.text, built).GetCode(), kLqErrBadMessage) << c.text;
      EXPECT_EQ(built, nullptr);
    }
  }
  EXPECT_EQ(tree.unserialize(nested(kMaxMessageDepth)), 0);
}

// --- what reading takes ------------------------------------------------------------------------------------

std::size_t memoryInUse() {
  const struct mallinfo2 heap = mallinfo2();
  return heap.uordblks + heap.hblkhd;
}

// Notes, whenever one is made, what the process uses.
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
    if (seen.size() < 2) seen.resize(2, memoryInUse());
    if (++made % 1000 == 0) seen.back() = memoryInUse();
    most = std::max(most, std::max(seen.front(), seen.back()));
  }
  static inline std::vector<std::size_t> seen;  // at the first, and at the last thousandth
  static inline std::size_t made = 0;
  static inline std::size_t most = 0;
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
      "<Test.Probe name=\"sValueOfSomeKind\" value=\"" + std::string(80, 'v') + "\" flag=\"1\"/>";
  const struct {
    std::string text;
    const char* reason;  // empty: it is read
  } cases[] = {{probes(400'000, ordinary), ""},
               {probes(100'000, shortest), ""},
               {probes(50'000, empty), ""},
               {probes(kMaxMessageRecords, empty), "times the memory"},
               {probes(kMaxMessageRecords + 1, ordinary), "more than 500000 records"},
               {"<Test.Probes>" + probes(3'000'000, "<a/>") + "</Test.Probes>", "times the memory"}};
  for (const auto& [text, reason] : cases) {
    Probe::seen.clear();
    Probe::most = 0;
    std::string buffer = text;
    std::unique_ptr<CNMessageBase> message;
    const std::size_t before = memoryInUse();
    const CWmError error = CNMessageBase::fromBuffer(buffer, message);
    EXPECT_NE(std::string(error.AsString()).find(reason), std::string::npos) << error.AsString();
    ASSERT_EQ(error.IsError(), *reason != '\0') << text.substr(0, 80) << error.AsString();
    if (error.IsError()) continue;
    const std::size_t taken = Probe::most > before ? Probe::most - before : 0;
    EXPECT_LE(taken, (kMaxReadFactor - 1) * text.size() + kReadAllowanceBytes) << text.substr(0, 80);
    EXPECT_LE(Probe::seen.back(), Probe::seen.front()) << "the tree is still there";
    std::printf("%zu bytes of text, %.2f times as much taken with it\n", text.size(),
                1 + static_cast<double>(taken) / static_cast<double>(text.size()));
  }
}

// --- protected strings -------------------------------------------------------------------------------------

TEST_F(MessageTest, AStoredTextNeverHoldsTheSecret) {
  Tree tree;
  tree.secret = pstring("hunter2-hunter2");
  tree.children.edit().emplace_back().secret = pstring("hunter2-hunter2");
  std::string text;
  ASSERT_EQ(tree.serialize(text, false), 0);
  EXPECT_EQ(text.find("hunter2"), std::string::npos);
  EXPECT_EQ(text.find("clear:"), std::string::npos);
  EXPECT_EQ(reread(text).children->at(0).secret->reveal(), "hunter2-hunter2");

  ASSERT_EQ(tree.serialize(text, true), 0);
  EXPECT_NE(text.find("clear:hunter2-hunter2"), std::string::npos);
}

TEST_F(MessageTest, V8TextIsDeterministicPerKeyAndCannotBeAltered) {
  const std::string text = pstring("correct horse").getV8Password();
  EXPECT_EQ(text, pstring("correct horse").getV8Password());
  EXPECT_NE(text, pstring("correct house").getV8Password());

  pstring out("kept");
  // Everything but the last character, whose low bits may carry nothing.
  for (std::size_t i = 0; i + 4 < text.size(); ++i) {
    std::string altered = text;
    altered[i] = altered[i] == 'A' ? 'B' : 'A';
    EXPECT_FALSE(pstring::fromV8Password(altered, out)) << "at " << i;
  }
  for (const std::string& other : {text.substr(0, text.size() - 4), text.substr(3), std::string("V8:"),
                                   std::string("V8:AAAA"), text + "\n", "V8:" + text})
    EXPECT_FALSE(pstring::fromV8Password(other, out)) << other;
  EXPECT_EQ(out.reveal(), "kept");

  pstring::UseKeyFile(dir_ / "another.key");
  EXPECT_FALSE(pstring::fromV8Password(text, out));
  EXPECT_NE(text, pstring("correct horse").getV8Password());
  pstring::UseKeyFile(dir_ / "protection.key");
  ASSERT_TRUE(pstring::fromV8Password(text, out));
  EXPECT_EQ(out.reveal(), "correct horse");
  ASSERT_TRUE(pstring::fromV8Password("", out));
  EXPECT_TRUE(out.empty());
}

TEST_F(MessageTest, TheKeyFileIsForItsOwnerAndOneForAllWhoCreateItAtOnce) {
  const std::string path = dir_ / "made-at-once.key";
  pstring::UseKeyFile(path);
  std::vector<pid_t> children;
  for (int i = 0; i < 6; ++i) {
    children.push_back(fork());
    if (children.back() == 0) {
      writeFile(dir_ / ("text." + std::to_string(i)), pstring("secret").getV8Password());
      _exit(0);
    }
  }
  for (const pid_t child : children) waitpid(child, nullptr, 0);

  std::set<std::string> texts;
  for (std::size_t i = 0; i < children.size(); ++i)
    texts.insert(readFile(dir_ / ("text." + std::to_string(i))));
  EXPECT_EQ(texts, std::set<std::string>{pstring("secret").getV8Password()});

  EXPECT_EQ(test_support::modeOf(path), 0600U);
  for (const auto& entry : std::filesystem::directory_iterator(dir_.path()))
    EXPECT_FALSE(entry.path().string().starts_with(path + ".")) << entry.path() << " was left behind";
}

TEST_F(MessageTest, WithoutAUsableKeyNothingIsStored) {
  const std::string shortKey = dir_ / "short.key";
  writeFile(shortKey, std::string(63, 'k'));
  for (const std::string& path : {shortKey, dir_ / "no/such/folder/key"}) {
    pstring::UseKeyFile(path);
    oblog::Capture log;
    EXPECT_EQ(pstring("secret").getV8Password(), "");
    Tree tree;
    tree.secret = pstring("secret");
    std::string text = "unchanged";
    EXPECT_NE(tree.serialize(text, false), 0);
    EXPECT_EQ(tree.serialize(text, true), 0) << "needs no key";
    ASSERT_FALSE(log.Lines().empty());
    EXPECT_EQ(log.Lines()[0].kind, oblog::Kind::kError);
    EXPECT_NE(log.Lines()[0].text.find(path), std::string::npos) << log.Lines()[0].text;
  }
  EXPECT_EQ(readFile(shortKey), std::string(63, 'k')) << "a key that cannot be read is never replaced";
}

}  // namespace
