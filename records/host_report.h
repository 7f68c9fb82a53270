// What a client's host tells the server of itself, and what the server answers: a service of its own, beside
// the exchange of batches and acknowledgements, which stays as it is. docs/wire.md describes it.
//
// A list in a report holds what fits; how many entries did not is in the number beside it. Times are seconds
// since the epoch by the clock of whoever sends them.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "lqregistry/CNMessageBase.h"
#include "lqregistry/LqExport.h"

namespace HostReport {

// Namespace of the report classes.
inline constexpr int kNamespace = 14;

// Report::version and Answer::version: raised when the meaning of a field changes. Fields may be added
// without it, since unknown ones are skipped.
inline constexpr std::int64_t kVersion = 1;

// Bounds of a report, which the sender keeps and the server enforces.
inline constexpr std::size_t kMaxEntries = 200;    // of each list
inline constexpr std::size_t kMaxTextBytes = 512;  // of each text but the values of paths and names
inline constexpr std::size_t kMaxReportBytes = std::size_t{256} * 1024;  // of the whole, as text

// Report::cause.
inline constexpr const char* kCauseAsk = "ask";  // a pass is about to begin
inline constexpr const char* kCauseSync = "sync";
inline constexpr const char* kCauseRefresh = "refresh";
inline constexpr const char* kCausePush = "push";
inline constexpr const char* kCauseRollback = "rollback";
inline constexpr const char* kCauseVerdict = "verdict";  // a module has spoken since the last report
inline constexpr const char* kCauseStart = "start";      // the host has started

// A record that is not as the server wants it.
struct Problem : MessageClass<Problem, kNamespace, 1> {
  static constexpr const char* kClassName = "HostReport.Problem";
  Field<std::string, 1, 1> keyPath;  // empty, with an empty name, for what concerns the whole machine
  Field<std::string, 2, 2> valueName;
  Field<std::string, 3, 3> kind;    // one of the words in docs/wire.md
  Field<std::string, 4, 4> reason;  // for people
  Field<std::int64_t, 5, 5> since;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {
        field<&Problem::keyPath>("keyPath"), field<&Problem::valueName>("valueName"),
        field<&Problem::kind>("kind"), field<&Problem::reason>("reason"), field<&Problem::since>("since")};
    return list;
  }
};

// A value that was found changed on the machine, and was corrected.
struct Drift : MessageClass<Drift, kNamespace, 2> {
  static constexpr const char* kClassName = "HostReport.Drift";
  Field<std::string, 1, 1> keyPath;
  Field<std::string, 2, 2> valueName;
  Field<std::string, 3, 3> before;  // what was found; not set where there was no value, or it is secret
  Field<std::string, 4, 4> after;   // what it was corrected to; likewise
  Field<std::int64_t, 5, 5> time;
  Field<std::int64_t, 6, 6> isSecret;  // 1: neither is told

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {
        field<&Drift::keyPath>("keyPath"), field<&Drift::valueName>("valueName"),
        field<&Drift::before>("before"),   field<&Drift::after>("after"),
        field<&Drift::time>("time"),       field<&Drift::isSecret>("isSecret")};
    return list;
  }
};

// What a module says of a value that it uses.
struct Verdict : MessageClass<Verdict, kNamespace, 3> {
  static constexpr const char* kClassName = "HostReport.Verdict";
  Field<std::string, 1, 1> module;
  Field<std::string, 2, 2> keyPath;
  Field<std::string, 3, 3> valueName;
  Field<std::string, 4, 4> verdict;   // inEffect, needsRestart, refused, noAnswer or threw
  Field<std::string, 5, 5> sentence;  // the module's, for people
  Field<std::int64_t, 6, 6> since;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {
        field<&Verdict::module>("module"),       field<&Verdict::keyPath>("keyPath"),
        field<&Verdict::valueName>("valueName"), field<&Verdict::verdict>("verdict"),
        field<&Verdict::sentence>("sentence"),   field<&Verdict::since>("since")};
    return list;
  }
};

// What the host keeps of the values before the newest changes, and whether it went back to them.
struct Memory : MessageClass<Memory, kNamespace, 4> {
  static constexpr const char* kClassName = "HostReport.Memory";
  Field<std::string, 1, 1> state;   // none, kept, waiting, goingBack or goneBack
  Field<std::string, 2, 2> reason;  // why it waits, or went back; for people
  Field<std::int64_t, 3, 3> since;
  Field<std::int64_t, 4, 4> deadline;      // of a waiting one; 0: none
  Field<std::string, 5, 5> digest;         // of the batch that it is about
  Field<std::int64_t, 6, 6> places;        // values that it holds
  Field<std::int64_t, 7, 7> localChanges;  // values that were not put back, since somebody had changed them

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&Memory::state>("state"),
                                         field<&Memory::reason>("reason"),
                                         field<&Memory::since>("since"),
                                         field<&Memory::deadline>("deadline"),
                                         field<&Memory::digest>("digest"),
                                         field<&Memory::places>("places"),
                                         field<&Memory::localChanges>("localChanges")};
    return list;
  }
};

using ProblemList = std::vector<Problem>;
using DriftList = std::vector<Drift>;
using VerdictList = std::vector<Verdict>;

// The state of a client. The newest one is all that counts; the server answers each with an Answer.
struct Report : MessageClass<Report, kNamespace, 5> {
  static constexpr const char* kClassName = "HostReport.Report";
  Field<std::int64_t, 1, 1> version;
  Field<std::int64_t, 2, 2> clientId;
  // Which report is the newer one: the number grows with each that this host makes, not always by one, and
  // begins anew with another epoch when it has lost count.
  Field<std::string, 3, 3> epoch;
  Field<std::int64_t, 4, 4> sequence;
  Field<std::int64_t, 5, 5> time;
  Field<std::string, 6, 6> cause;
  Field<std::string, 7, 7> hostVersion;
  Field<std::string, 8, 8> outcome;      // of the last pass: a word
  Field<std::string, 9, 9> outcomeText;  // the same for people
  Field<std::string, 10, 10> digest;     // of the batch that came last; empty before the first
  Field<std::int64_t, 11, 11> records;   // in it
  Field<std::string, 12, 12> cache;      // what became of the settings cache: a word
  Field<std::int64_t, 13, 13> nextSync;  // 0: nothing is scheduled
  Field<std::int64_t, 14, 14> nextRefresh;
  Field<std::int64_t, 15, 15> asked;  // how many modules were asked for a verdict since that batch
  Field<ProblemList, 16, 16> problems;
  Field<std::int64_t, 17, 17> problemsOmitted;
  Field<DriftList, 18, 18> drifts;  // since the report before
  Field<std::int64_t, 19, 19> driftsOmitted;
  Field<VerdictList, 20, 20> verdicts;
  Field<std::int64_t, 21, 21> verdictsOmitted;
  Field<Memory, 22, 22> memory;
  Field<std::string, 23, 23> originsOf;  // the digest of the batch whose origins the client knows
  Field<std::int64_t, 24, 24> isAsking;  // 1: modules have not said yet what they make of what changed

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&Report::version>("version"),
                                         field<&Report::clientId>("clientId"),
                                         field<&Report::epoch>("epoch"),
                                         field<&Report::sequence>("sequence"),
                                         field<&Report::time>("time"),
                                         field<&Report::cause>("cause"),
                                         field<&Report::hostVersion>("hostVersion"),
                                         field<&Report::outcome>("outcome"),
                                         field<&Report::outcomeText>("outcomeText"),
                                         field<&Report::digest>("digest"),
                                         field<&Report::records>("records"),
                                         field<&Report::cache>("cache"),
                                         field<&Report::nextSync>("nextSync"),
                                         field<&Report::nextRefresh>("nextRefresh"),
                                         field<&Report::asked>("asked"),
                                         field<&Report::problems>("problems"),
                                         field<&Report::problemsOmitted>("problemsOmitted"),
                                         field<&Report::drifts>("drifts"),
                                         field<&Report::driftsOmitted>("driftsOmitted"),
                                         field<&Report::verdicts>("verdicts"),
                                         field<&Report::verdictsOmitted>("verdictsOmitted"),
                                         field<&Report::memory>("memory"),
                                         field<&Report::originsOf>("originsOf"),
                                         field<&Report::isAsking>("isAsking")};
    return list;
  }
};

// Where a value of the batch comes from.
struct Origin : MessageClass<Origin, kNamespace, 6> {
  static constexpr const char* kClassName = "HostReport.Origin";
  Field<std::string, 1, 1> keyPath;
  Field<std::string, 2, 2> valueName;
  Field<std::int64_t, 3, 3> revision;
  Field<std::string, 4, 4> scope;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {
        field<&Origin::keyPath>("keyPath"), field<&Origin::valueName>("valueName"),
        field<&Origin::revision>("revision"), field<&Origin::scope>("scope")};
    return list;
  }
};

// Who changed something on the server, and why.
struct Revision : MessageClass<Revision, kNamespace, 7> {
  static constexpr const char* kClassName = "HostReport.Revision";
  Field<std::int64_t, 1, 1> number;
  Field<std::int64_t, 2, 2> time;
  Field<std::string, 3, 3> who;
  Field<std::string, 4, 4> why;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&Revision::number>("number"), field<&Revision::time>("time"),
                                         field<&Revision::who>("who"), field<&Revision::why>("why")};
    return list;
  }
};

using OriginList = std::vector<Origin>;
using RevisionList = std::vector<Revision>;

// Answer::demand, besides a number of seconds.
inline constexpr std::int64_t kDemandNothing = -2;
inline constexpr std::int64_t kDemandVerdicts = -1;

// The server's answer to a report.
struct Answer : MessageClass<Answer, kNamespace, 8> {
  static constexpr const char* kClassName = "HostReport.Answer";
  Field<std::int64_t, 1, 1> version;
  Field<std::int64_t, 2, 2> sequence;  // of the report that it answers
  Field<std::int64_t, 3, 3> revision;  // of the batch with the reported digest; 0 when the server knows none
  // What a batch that is fetched now demands: nothing, good verdicts, or to be confirmed in so many seconds.
  Field<std::int64_t, 4, 4> demand;
  Field<std::int64_t, 5, 5> isConfirmed;  // 1: the batch with the reported digest stays
  // 1: the machine shall go back from the changes of the reported memory; only in the answer to kCauseAsk.
  Field<std::int64_t, 6, 6> goBack;
  Field<std::int64_t, 7, 7> isReleased;  // 1: what the machine went back from may be applied again
  Field<OriginList, 8, 8> origins;       // of the batch with the reported digest, unless the client has them
  Field<RevisionList, 9, 9> revisions;   // that the origins name

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {
        field<&Answer::version>("version"),         field<&Answer::sequence>("sequence"),
        field<&Answer::revision>("revision"),       field<&Answer::demand>("demand"),
        field<&Answer::isConfirmed>("isConfirmed"), field<&Answer::goBack>("goBack"),
        field<&Answer::isReleased>("isReleased"),   field<&Answer::origins>("origins"),
        field<&Answer::revisions>("revisions")};
    return list;
  }
};

// The server asks a client's host for a synchronisation of its own, and the host answers with the same once
// it is to come. Over the host's service (records/service_names.h), unlike the others.
struct SyncNow : MessageClass<SyncNow, kNamespace, 9> {
  static constexpr const char* kClassName = "HostReport.SyncNow";
  Field<std::int64_t, 1, 1> version;

  static std::span<const FieldInfo> fields() {
    static constexpr FieldInfo list[] = {field<&SyncNow::version>("version")};
    return list;
  }
};

// Makes the classes known to the message library; a second time is harmless.
LQ_EXPORT void RegisterSubsystem();

}  // namespace HostReport
