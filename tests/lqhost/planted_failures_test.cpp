// What goes wrong on machines, planted there for real, and what the server then says of it: to somebody who
// cannot call the machine, and while nobody serves. Then it goes away by the way out that was named.
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <set>

#include "lqhost/commands/exit_codes.h"
#include "lqregistry/UtcText.h"
#include "tests/lqhost/host_fixture.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

constexpr uid_t kNobody = 65534;
constexpr int kServerUnreachable = 4;
constexpr int kServerNotCurrent = 6;
const std::string kSampleModule = LQ_LIB_DIR "/lq_sample_module.so";
const std::string kFailingModule = LQ_LIB_DIR "/libfailing_module.so";

class PlantedFailure;

struct Failure {
  const char* name;
  void (PlantedFailure::*plant)();
  // What has to be said of it.
  std::string kind;
  std::string path;
  std::string valueName;
  std::vector<std::string> reason;
  std::string wayOut;
  // The kinds of all that is to be wrong.
  std::set<std::string> wrong;
  void (PlantedFailure::*goThere)();  // the way out
};

void PrintTo(const Failure& failure, std::ostream* out) {
  *out << failure.name;
}

class PlantedFailure : public HostTest, public testing::WithParamInterface<Failure> {
 public:
  void forbiddenKey() {
    expectOk({"set", "web-1", "Clients", "Other", "--type", "KEY", "--force"});
    sync(host::kExitPartly);
  }
  // It belongs to the service user, whom root becomes, and whom nobody lets write.
  void readOnlyRegistry() {
    set("A", "sNEW", "new");
    if (geteuid() == 0) {
      ASSERT_EQ(chmod(dir_.path().c_str(), 0711), 0);
      for (const std::string& folder : {registryFolder_, home_}) {
        ASSERT_EQ(chown(folder.c_str(), kNobody, kNobody), 0);
        for (const auto& file : fs::recursive_directory_iterator(folder))
          ASSERT_EQ(chown(file.path().c_str(), kNobody, kNobody), 0);
      }
    }
    ASSERT_EQ(chmod(clientRegistry_.c_str(), 0400), 0);
    ASSERT_EQ(chmod(registryFolder_.c_str(), 0500), 0);
    sync(host::kExitPartly);
    ASSERT_EQ(chmod(registryFolder_.c_str(), 0700), 0) << "or it could not be removed";
  }
  // There is room for small files, and for no transaction of this size.
  void fullDisk() {
    for (const char* const name : {"sFIRST", "sSECOND", "sTHIRD", "sFOURTH", "sFIFTH", "sSIXTH", "sSEVENTH"})
      set("A", name, std::string(10000, 'x'));
    const FullDisk disk(64U << 10);
    sync(host::kExitPartly);
  }
  void valueTooLong() {
    set("A", "sLONG", std::string(10240, 'x'));
    sync(host::kExitOk);
  }
  void lostProtectionKey() {
    outOf(shell("echo hidden | \"$OVERHUB\" set web-1 A sPASSWORD --secret"));
    fs::rename(clientRegistry_ + ".key", dir_ / "key");
    sync(host::kExitPartly);
  }
  void damagedCache() {
    fs::resize_file(cacheFile(), fs::file_size(cacheFile()) / 2);
    sync(host::kExitCacheUnreadable);
  }
  // The file of a backup that is older than what the server knows to be gone.
  void cacheKept() {
    set("A", "sOLD", "old");
    sync(host::kExitOk);
    const std::string backup = readFile(cacheFile());
    expectOk({"unset", "web-1", "A", "sOLD"});
    for (int i = 0; i < 3; ++i) sync(host::kExitOk);
    writeFile(cacheFile(), backup);
    sync(host::kExitCacheKept);
  }
  void moduleRefused() {
    set("Machine/Settings", "nTraceLevel", "11");
    runWith(kSampleModule);
  }
  void moduleHung() {
    set("Failing", "sHANGS", "for ever");
    runWith(kFailingModule);
  }
  void handlerThrew() {
    set("Failing", "sTHROWS", "odd");
    runWith(kFailingModule);
  }
  void overriddenLocally() {
    outOf(runProgram(onClient({"set", "--instance", "Instance001", "A", "sGOOD", "as I like it"}, "lqreg")));
    outOf(lqhost({"refresh"}));
  }
  void clockFarOff() {
    // A sanitizer wants to be loaded before it.
    sync(host::kExitOk, {"LD_PRELOAD=" LQ_LIB_DIR "/libwrong_clock.so", "WRONG_CLOCK_BY=-7200",
                         "ASAN_OPTIONS=verify_asan_link_order=0"});
  }

  // --- ways out ---

  void justSync() { sync(host::kExitOk); }
  void unsetKey() {
    expectOk({"unset", "web-1", "Clients", "Other"});
    sync(host::kExitOk);
  }
  void letWrite() {
    ASSERT_EQ(chmod(clientRegistry_.c_str(), 0600), 0);
    sync(host::kExitOk);
  }
  void setShorter() {
    set("A", "sLONG", "short");
    sync(host::kExitOk);
  }
  void putKeyBack() {
    fs::rename(dir_ / "key", clientRegistry_ + ".key");
    sync(host::kExitOk);
  }
  void syncFresh() { outOf(lqhost({"sync", "--fresh"})); }
  void resend() {
    expectOk({"resend", "web-1"});
    for (int i = 0; i < 2; ++i) sync(host::kExitOk);
  }
  void setValidLevel() {
    set("Machine/Settings", "nTraceLevel", "5");
    sync(host::kExitOk);
  }
  void setWhatHandlerTakes() {
    set("Failing", "sTHROWS", "well");
    sync(host::kExitOk);
  }
  void restartWithoutModule() {
    host_.reset();
    host_ = runHost({"--sync-every", "3600"});
  }

 protected:
  // A machine that is well, has a server that knows that, and cannot be called.
  PlantedFailure() {
    fs::create_directory(registryFolder_);
    clientRegistry_ = registryFolder_ + "/registry.db";
    join();
    expectOk({"client-host", "web-1", uniqueLoopbackAddress()});
    server_ = serve();
    set("A", "sGOOD", "as set");
    sync(host::kExitOk);
    outOf(overhub({"why", "web-1"}));
  }

  void set(const std::string& path, const std::string& name, const std::string& value) const {
    expectOk({"set", "web-1", path, name, value});
  }
  void sync(int exitCode, const std::vector<std::string>& environment = {}) const {
    const auto synced = runProgram(onClient({"sync"}), environment);
    EXPECT_EQ(synced.exitCode, exitCode) << synced.out << synced.err;
  }
  std::string cacheFile() const { return base_ + "/AdditionalSettingsCache.xml"; }
  // Modules are told, and asked, by a host that stays.
  void runWith(const std::string& module) {
    host_ = runHost({"--module", module, "--sync-every", "3600"});
    EXPECT_TRUE(becomesTrue([this] { return !toldOf(GetParam().kind).empty(); })) << host_->output();
  }

  Json findings() const { return Json::parse(overhub({"why", "web-1", "--json"}).out)["findings"]; }
  std::vector<Json> toldOf(const std::string& kind) const {
    std::vector<Json> told;
    for (const Json& finding : findings())
      if (finding["kind"] == kind) told.push_back(finding);
    return told;
  }

  std::string registryFolder_ = dir_ / "registry";
  std::unique_ptr<BackgroundProgram> server_;
  std::unique_ptr<BackgroundProgram> host_;
};

const Failure kFailures[] = {
    {"ForbiddenKey",
     &PlantedFailure::forbiddenKey,
     "forbidden",
     "~Clients",
     "Other",
     {"keys may not be created remotely"},
     R"(clients create no sub-key but "Local"; unset this one)",
     {"forbidden"},
     &PlantedFailure::unsetKey},
    {"ReadOnlyRegistry",
     &PlantedFailure::readOnlyRegistry,
     "readOnly",
     "~A",
     "sNEW",
     {"the registry may only be read: the file is read-only"},
     "make the registry file and its directory writable",
     {"readOnly"},
     &PlantedFailure::letWrite},
    {"FullDisk",
     &PlantedFailure::fullDisk,
     "diskFull",
     "~A",
     "sTHIRD",
     {"there is no room for it"},
     "free space on the machine's disk",
     {"diskFull", "cacheLost"},
     &PlantedFailure::justSync},
    {"ValueTooLong",
     &PlantedFailure::valueTooLong,
     "tooLong",
     "~A",
     "sLONG",
     {"the value has 10240 bytes", "modules read 10239 at most"},
     "set something shorter",
     {"tooLong"},
     &PlantedFailure::setShorter},
    {"LostProtectionKey",
     &PlantedFailure::lostProtectionKey,
     "protection",
     "~A",
     "sPASSWORD",
     {"protected values cannot be written", "registry.db.key: the protection key is missing"},
     "put the protection key back",
     {"protection"},
     &PlantedFailure::putKeyBack},
    {"DamagedCache",
     &PlantedFailure::damagedCache,
     "cacheUnreadable",
     "",
     "",
     {"the settings cache cannot be read"},
     R"(run "lqhost sync --fresh" on the machine)",
     {"cacheUnreadable"},
     &PlantedFailure::syncFresh},
    {"CacheKept",
     &PlantedFailure::cacheKept,
     "cacheKept",
     "",
     "",
     {"the settings cache holds more records than the batch", "works against it"},
     R"("overhub resend web-1", or "lqhost sync --fresh" on the machine)",
     {"cacheKept"},
     &PlantedFailure::resend},
    {"ModuleRefused",
     &PlantedFailure::moduleRefused,
     "refused",
     "Machine/Settings",
     "nTraceLevel",
     {"sample module refused Machine/Settings nTraceLevel: trace levels are 0 to 10, not 11"},
     "set something that the module takes",
     {"refused"},
     &PlantedFailure::setValidLevel},
    {"ModuleHung",
     &PlantedFailure::moduleHung,
     "noAnswer",
     "Failing",
     "sHANGS",
     {"failing module did not say in time whether it works with Failing sHANGS: it did not answer within 10 "
      "s"},
     "see whether the module hangs, and restart the host",
     {"noAnswer"},
     &PlantedFailure::restartWithoutModule},
    {"HandlerThrew",
     &PlantedFailure::handlerThrew,
     "threw",
     "Failing",
     "sTHROWS",
     {"a module failed with an exception when it was told of Failing sTHROWS: ", "no such mode: odd"},
     "see the module's log, and mend the module",
     {"threw"},
     &PlantedFailure::setWhatHandlerTakes},
    {"OverriddenLocally",
     &PlantedFailure::overriddenLocally,
     "drift",
     "~A",
     "sGOOD",
     {"was changed on the machine and corrected once", R"(from "as I like it" to "as set")"},
     "find out who sets it on the machine and why",
     {},
     &PlantedFailure::justSync},
    {"ClockFarOff",
     &PlantedFailure::clockFarOff,
     "clock",
     "",
     "",
     {"its clock is 2 h behind the server's"},
     "set the machine's clock",
     {"clock"},
     &PlantedFailure::justSync}};

// The line of a finding for people, without its end; a module's words name the value by themselves.
std::string lineOf(const Json& finding) {
  const std::string path = finding["path"];
  std::string line = finding["isWrong"] == true ? "\n  ! " : "\n    ";
  if (path.starts_with('~')) {
    line += path + " " + finding["name"].get<std::string>();
    line += finding["kind"] == "drift" ? " " : ": ";
  }
  return line + finding["why"].get<std::string>();
}

TEST_P(PlantedFailure, IsToldWithTheRecordTheReasonAndTheWayOutByTheServerAlone) {
  const Failure& planted = GetParam();
  const std::string began = lqtext::utcText(std::time(nullptr));
  (this->*planted.plant)();
  expectErr(overhub({"push", "web-1"}), kServerUnreachable, {"port 8404: Connection refused"});
  EXPECT_EQ(server_->stop(), 0);

  const auto forPeople = overhub({"why", "web-1"});
  SCOPED_TRACE(forPeople.out);
  EXPECT_EQ(forPeople.exitCode, planted.wrong.empty() ? 0 : kServerNotCurrent);
  std::set<std::string> wrong;
  for (const Json& finding : findings())
    if (finding["isWrong"] == true) wrong.insert(finding["kind"]);
  EXPECT_EQ(wrong, planted.wrong) << "nothing else is to blame";

  std::vector<Json> told = toldOf(planted.kind);
  std::erase_if(told, [&planted](const Json& finding) {
    return finding["path"] != planted.path || finding["name"] != planted.valueName;
  });
  ASSERT_EQ(told.size(), 1U) << "once";
  const std::string why = told[0]["why"];
  const std::string wayOut = told[0]["wayOut"];
  const std::string since = told[0].value("since", "");
  const bool isKnownSince = began <= since && since <= lqtext::utcText(std::time(nullptr));
  EXPECT_TRUE(isKnownSince || (since.empty() && planted.kind == "clock")) << since;
  for (const std::string& part : planted.reason) EXPECT_TRUE(contains(why, part)) << why;
  EXPECT_TRUE(contains(wayOut, planted.wayOut)) << wayOut;
  const std::size_t line = forPeople.out.find(lineOf(told[0]));
  ASSERT_NE(line, std::string::npos) << lineOf(told[0]);
  const std::size_t next = forPeople.out.find('\n', line + 1) + 1;
  EXPECT_TRUE(forPeople.out.substr(next).starts_with("      way out: " + wayOut + "\n"));

  server_ = serve();
  (this->*planted.goThere)();
  EXPECT_TRUE(becomesTrue([this] {
    return overhub({"why", "web-1"}).exitCode == 0;
  })) << "no way out\n"
      << overhub({"why", "web-1"}).out;
}

INSTANTIATE_TEST_SUITE_P(Machine, PlantedFailure, testing::ValuesIn(kFailures),
                         [](const auto& failure) { return failure.param.name; });

}  // namespace
