// Which records fit a file of definitions, and which files are none.
#include "overhub/commands/definitions.h"

#include <regex>
#include <sstream>

#include "tests/support/expectations.h"
#include "tests/support/product_fixture.h"

namespace {

constexpr const char* kFile = R"({"settings": [  // why
  {"path": "Limits/", "name": "nMAX", "kind": "number", "min": -1, "max": 100,
   "sentence": "How many", "needsRestart": true},
  {"path": "~/Limits", "name": "nLOW", "kind": "number", "min": 5, "sentence": "Least"},
  {"path": "~/Limits", "name": "nTOP", "kind": "number", "max": 9223372036854775807, "sentence": "Most"},
  {"path": "~/Limits", "name": "bON", "kind": "number", "choices": [0, 1], "sentence": "Whether"},
  {"path": "~/Mode", "name": "sMODE", "kind": "text", "choices": ["fast", "safe", "off"], "sentence": "How"},
  {"path": "~/Proxy", "name": "sPASSWORD", "kind": "text", "secret": true, "sentence": "Of the proxy"},
  {"path": "~", "name": "Local", "type": "KEY", "sentence": "A sub-key"},
  {"path": "SOFTWARE/Hosts/*", "name": "sNAME_*", "kind": "text", "sentence": "Of any"},
  {"path": "SOFTWARE/Hosts/a", "name": "sNAME_1", "type": "STRING", "kind": "text", "sentence": "Of a"}
]})";

class DefinitionsTest : public testing::Test {
 protected:
  std::string faultOf(const std::string& text) {
    writeFile(file_, text);
    return loaded_.load(file_).AsString();
  }
  TempDir dir_;
  std::string file_ = dir_ / "definitions.json";
  Definitions loaded_;
};

TEST_F(DefinitionsTest, RefuseWhatDoesNotFitAndSayWhatWould) {
  EXPECT_FALSE(loaded_.check(record("~/Any", "nX", "y")).IsError()) << "nothing is defined yet";
  EXPECT_FALSE(loadDefinitions("", dir_ / "", loaded_).IsError()) << "there is no file";
  writeFile(file_, kFile);
  ASSERT_STREQ(loadDefinitions("", dir_ / "", loaded_).AsString(), "");
  EXPECT_TRUE(loadDefinitions(dir_ / "absent", dir_ / "", loaded_).IsError());
  const std::string isNone = "\" is not defined in " + file_;
  const std::pair<OBGui::RegistryKeyInfo, std::string> cases[] = {
      {record("~//Limits", "nMAX", "100"), ""},
      {record("Limits", "nMAX", "-1"), ""},
      {record("Limits", "nMAX", "101"),
       R"("101" does not fit "nMAX" in "~/Limits" (How many), which takes a whole number from -1 to 100)"},
      {record("Limits", "nMAX", "-2"), "from -1 to 100"},
      {record("~/Limits", "nMAX", "1.5"), "\"1.5\" does not fit"},
      {record("~/Limits", "nLOW", ""), "takes a whole number from 5 on"},
      {record("~/Limits", "nTOP", "9223372036854775808"), "takes a whole number"},
      {record("~/Limits", "bON", "01"), ""},
      {record("~/Limits", "bON", "2"), "takes 0 or 1"},
      {record("~/Mode", "sMODE", "safe"), ""},
      {record("~/Mode", "sMODE", "Safe"), R"(takes "fast", "safe" or "off")"},
      {secretRecord("~/Proxy", "sPASSWORD", "x"), ""},
      {record("~/Proxy", "sPASSWORD", "x"), R"("sPASSWORD" in "~/Proxy" is a secret: set it with --secret)"},
      {secretRecord("~/Mode", "sMODE", "safe"), "an ordinary value: set it without"},
      {record("~", "Local", "", "KEY"), ""},
      {record("~", "Local", "x"), "is a sub-key: set it with --type KEY"},
      {record("SOFTWARE/Hosts/b", "sNAME_2", "x"), ""},
      {record("SOFTWARE/Hosts/b/c", "sNAME_2", "x"), isNone},
      {record("SOFTWARE/Hosts/b", "sNAME_", "x"), isNone},
      {record("~/Limit", "nmax", "1"), isNone + R"(; did you mean "nMAX" in "~/Limits"?)"},
      {record("~/Limits", "nMOW", "1"),
       R"(; did you mean "nLOW" in "~/Limits", "nMAX" in "~/Limits" or "nTOP")"},
      {record("SOFTWARE/Host/machine7", "sNAM_7", "x"), R"(; did you mean "sNAME_*" in "SOFTWARE/Hosts/*"?)"},
      {record("~/Elsewhere/Altogether", "sMode", "x"), R"(; did you mean "sMODE" in "~/Mode"?)"},
      {record("~/Limits", "nMAX_UNTIL", "1999999999"), ""},
      {record("~/Limits", "nMAX_UNTIL", "tomorrow"), "takes a whole number from 0 on"},
      {record("~/Other", "nMAX_UNTIL", "1"), isNone},
      {removal("~/Limits", "nMAX"), ""},
      {disabled("~/Mode", "sMODE", "x"), ""},
      {removal("~/Gone", "nOLD"), ""}};
  for (const auto& [asked, wanted] : cases) {
    const CWmError error = loaded_.check(asked);
    EXPECT_TRUE(error.IsError() != wanted.empty() && contains(error.AsString(), wanted))
        << wanted << "\nis not\n"
        << error.AsString();
  }
  const std::string none = loaded_.check(record("~/Limits", "sSOMETHINGELSE", "x")).AsString();
  EXPECT_TRUE(none.ends_with(file_)) << none;
}

TEST_F(DefinitionsTest, TellOfSettingsAndDoubtRemovalsOfOthers) {
  ASSERT_EQ(faultOf(kFile), "");
  ASSERT_NE(faultOf("{"), "") << "a file that is none changes nothing";
  EXPECT_EQ(loaded_.sentenceOf("~Limits", "nMAX") + '|' + loaded_.sentenceOf("Limits", "nMAX_UNTIL"),
            "How many|When \"nMAX\" ends, in seconds since 1970");
  EXPECT_EQ(loaded_.sentenceOf("SOFTWARE/Hosts/a", "sNAME_1") +
                loaded_.sentenceOf("SOFTWARE/Hosts/a", "sNAME_2") + loaded_.sentenceOf("~", "nMAX"),
            "Of aOf any");
  EXPECT_TRUE(loaded_.needsRestart("Limits", "nMAX") && loaded_.needsRestart("Limits", "nMAX_UNTIL"));
  EXPECT_FALSE(loaded_.needsRestart("Limits", "nLOW") || loaded_.needsRestart("Limits", "nNONE"));
  for (const auto& known :
       {removal("Limits", "nMAX"), removal("~", "Limits", "KEY"), removal("", "SOFTWARE", "KEY"),
        removal("SOFTWARE/Hosts", "b", "KEY"), record("~/Limits", "nMAXX", "1")})
    EXPECT_EQ(loaded_.doubtAbout(known), "") << known.valueName.get();
  for (const auto& other : {removal("~/Limits", "nMAXX"), disabled("~/Limits", "nMAXX", "1")})
    EXPECT_TRUE(contains(loaded_.doubtAbout(other), R"(did you mean "nMAX" in)"));
  EXPECT_NE(loaded_.doubtAbout(removal("~", "Limit", "KEY")), "");
}

TEST_F(DefinitionsTest, RefuseFilesThatContradictThemselves) {
  const auto expectFault = [this](const std::string& text, const std::string& fault) {
    const std::string said = faultOf(text);
    EXPECT_TRUE(said.starts_with(file_ + ": " + fault)) << text << "\n" << said;
  };
  const std::pair<const char*, const char*> files[] = {
      {"", "parse error at line 1"},
      {"{\"settings\": [\n{\"path\" \"~\"}]}", "parse error at line 2, column 11: "},
      {"[]", "it has to hold {\"settings\""},
      {R"({"settings": {}})", "it has to hold"},
      {R"({"settings": [7], "more": 1})", "it has to hold"},
      {R"({"settings": []})", "it defines nothing"},
      {R"({"settings": [], "settings": []})", "\"settings\" stands twice"},
      {R"({"settings": [{}, {"min": 1, "min": 2}]})", "setting 2: \"min\" stands twice"},
      {R"({"settings": [7]})", "setting 1: has to be an object"},
      {R"({"settings": [{"name": "n"}]})", "setting 1: \"path\" is missing"},
      {R"({"settings": [{"path": "A"}]})", "setting 1: \"name\" is missing"},
      {R"({"settings": [{"path": "A", "name": "n", "kind": "text"}]})",
       "setting 1 (\"n\" in \"~/A\"): \"sentence\" is missing"},
      {R"({"settings": [{"path": "A", "name": "n", "kind": "text", "sentence": "S"},
                        {"path": "~//A", "name": "n", "kind": "text", "sentence": "S"}]})",
       "setting 2 (\"n\" in \"~/A\"): is defined already"}};
  for (const auto& [text, fault] : files) expectFault(text, fault);
  const std::pair<const char*, const char*> fields[] = {
      {R"("mix": 1)", "unknown field \"mix\"; there are path, name,"},
      {R"("needsRestart": true)", "\"kind\" is missing"},
      {R"("kind": 1)", "\"kind\" has to be a text"},
      {R"("kind": "float")", "\"kind\" is \"number\" or \"text\""},
      {R"("kind": "text", "type": "ENCRYPTED")", "\"type\" is \"STRING\", or \"KEY\""},
      {R"("kind": "text", "secret": 1)", "\"secret\" has to be true or false"},
      {R"("kind": "text", "needsRestart": "yes")", "\"needsRestart\" has to be true or false"},
      {R"("kind": "number", "min": 1.0)", "\"min\" has to be a whole number"},
      {R"("kind": "number", "max": 9223372036854775808)", "\"max\" has to be a whole number"},
      {R"("kind": "number", "min": 2, "max": 1)", "\"min\" is greater"},
      {R"("kind": "text", "max": 1)", "\"min\" and \"max\" are for numbers"},
      {R"("kind": "number", "choices": [1], "min": 1)", "\"choices\" say it all"},
      {R"("kind": "number", "choices": [1, "2"])", "\"choices\" of a number are whole numbers"},
      {R"("kind": "text", "choices": ["1", 2])", "\"choices\" of a text are texts"},
      {R"("kind": "text", "choices": [])", "\"choices\" has to be a list"},
      {R"("kind": "text", "choices": ["a", "a"])", "\"choices\" has \"a\" twice"},
      {R"("kind": "text", "choices": ["a"], "secret": true)", "nobody reads a secret"},
      {R"("kind": "number", "secret": true)", "nobody reads a secret"},
      {R"("type": "KEY", "kind": "text")", "a sub-key has no value"},
      {R"("type": "KEY", "max": 1)", "a sub-key has no value"}};
  for (const auto& [added, fault] : fields)
    expectFault(R"({"settings": [{"path": "~", "name": "n", "sentence": "S", )" + std::string(added) + "}]}",
                R"(setting 1 ("n" in "~"): )" + std::string(fault));
  const std::pair<const char*, const char*> names[] = {
      {R"("path": "A*B", "name": "n", "sentence": "S")", "a \"*\" stands for the rest"},
      {R"("path": "A", "name": "*_n", "sentence": "S")", "a \"*\" stands for the rest"},
      {R"("path": "A\u0000", "name": "n", "sentence": "S")",
       "names and paths are text in UTF-8 without control"},
      {R"("path": "A", "name": "n", "sentence": "")", "\"sentence\" has to be one line"},
      {R"("path": "A", "name": "n", "sentence": "a\nb")", "\"sentence\" has to be one line"}};
  for (const auto& [entry, fault] : names)
    EXPECT_TRUE(contains(faultOf(R"({"settings": [{"kind": "text", )" + std::string(entry) + "}]}"), fault))
        << entry;
}

// The example defines what the README's table lists, "<...>" standing for any name.
TEST_F(DefinitionsTest, ExampleDefinesTheClientsOwnSettings) {
  ASSERT_STREQ(loaded_.load(LQ_SOURCE_DIR "/examples/definitions.json").AsString(), "");
  const std::regex any("<[a-z]+>");
  const std::regex row(R"(^\| `([^`]+)` \| (.*?) \| read)");
  const std::regex value("`([^`]+)`");
  const std::string readme = readFile(LQ_SOURCE_DIR "/README.md");
  std::istringstream lines(std::regex_replace(readme.substr(readme.find("## Configuration")), any, "7"));
  int rows = 0;
  std::smatch found;
  for (std::string line; std::getline(lines, line);) {
    if (!std::regex_search(line, found, row)) continue;
    ++rows;
    const std::string path = found[1];
    for (std::string names = found[2]; std::regex_search(names, found, value); names = found.suffix())
      EXPECT_NE(loaded_.sentenceOf(path, found[1]), "") << path << ' ' << found[1];
  }
  EXPECT_GT(rows, 0) << "the table is read";
  EXPECT_NE(loaded_.sentenceOf("SOFTWARE/Velmor/Clients/web-1", "nCLIENTID"), "");
}

}  // namespace
