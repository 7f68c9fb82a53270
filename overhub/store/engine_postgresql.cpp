#include <libpq-fe.h>
#include <poll.h>
#include <soci/postgresql/soci-postgresql.h>
#include <soci/soci.h>

#include <algorithm>
#include <array>
#include <regex>
#include <stdexcept>

#include "overhub/store/engine.h"

namespace {

// How long one host is tried, and how long what was sent may stay unanswered by the other machine's kernel.
constexpr const char* kConnectSeconds = "10";
constexpr const char* kUnansweredMilliseconds = "20000";

// No session that has died in the middle, or hangs, keeps the others waiting for good.
constexpr const char* kSettings[] = {"SET idle_in_transaction_session_timeout = '60s'",
                                     "SET lock_timeout = '60s'", "SET client_min_messages = 'error'"};

std::string stateOf(const std::exception& fault) {
  const auto* const theirs = dynamic_cast<const soci::postgresql_soci_error*>(&fault);
  return theirs == nullptr ? "" : theirs->sqlstate();
}

// The library has no word of its own for a server that cannot be reached.
struct Unreachable : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A COMMIT that nobody has confirmed.
struct Unanswered : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// What the library throws when a connection is lost.
soci::postgresql_soci_error lostAt(PGconn* connection) {
  return {PQerrorMessage(connection), "08000"};
}

// Whether the answer to what was sent has come.
bool awaitAnswer(PGconn* connection, std::chrono::milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (PQisBusy(connection) != 0) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return false;
    pollfd socket{PQsocket(connection), POLLIN, 0};
    if (::poll(&socket, 1, static_cast<int>(left.count())) > 0 && PQconsumeInput(connection) == 0)
      throw lostAt(connection);
  }
  return true;
}

// Has the server stop waiting: else each COMMIT that was given up would keep a session and its locks there.
void cancel(PGconn* connection) {
  const std::unique_ptr<PGcancel, decltype(&PQfreeCancel)> request(PQgetCancel(connection), PQfreeCancel);
  std::array<char, 256> reason{};
  if (request) PQcancel(request.get(), reason.data(), static_cast<int>(reason.size()));
}

// Class 08 is the connection's, 57P0 a server that is ending or starting; 25006 one that has become a
// standby.
bool isLost(const std::exception& fault) {
  const std::string state = stateOf(fault);
  return dynamic_cast<const Unreachable*>(&fault) != nullptr || state.starts_with("08") ||
         state.starts_with("57P0") || state == "25006";
}

// Not what(): that has the values of the statement in it, and some are secrets.
std::string reasonOf(const std::exception& fault) {
  const auto* const general = dynamic_cast<const soci::soci_error*>(&fault);
  std::string reason = general == nullptr ? fault.what() : general->get_error_message();
  // It would show the piece of the URI that it does not understand, which may be of the password.
  if (reason.find("percent-encoded") != std::string::npos)
    return "in its URI a % is not followed by two digits";
  std::replace_if(
      reason.begin(), reason.end(), [](char byte) { return byte == '\n' || byte == '\t'; }, ' ');
  while (!reason.empty() && (reason.back() == '\n' || reason.back() == ' ')) reason.pop_back();
  return reason;
}

// The URI with one more parameter, unless it has that one already.
std::string withParameter(const std::string& uri, const std::string& name, const std::string& value) {
  if (uri.find(name + '=') != std::string::npos) return uri;
  return uri + (uri.find('?') == std::string::npos ? '?' : '&') + name + '=' + value;
}

// For texts: whatever stands between the user and the last "@" before the parameters, and the parameter.
std::string withoutPassword(const std::string& uri) {
  const std::size_t end = std::min(uri.find('?'), uri.size());
  const std::string authority =
      std::regex_replace(uri.substr(0, end), std::regex("(://[^:/]*):.*@"), "$1:********@");
  return authority + std::regex_replace(uri.substr(end), std::regex("(password=)[^&]*"), "$1********");
}

class Postgresql : public Engine {
 public:
  Postgresql(const std::string& uri, std::chrono::milliseconds commitPatience)
      : Engine(withoutPassword(uri)), commitPatience_(commitPatience) {
    uri_ = withParameter(uri, "connect_timeout", kConnectSeconds);
    uri_ = withParameter(uri_, "tcp_user_timeout", kUnansweredMilliseconds);
    uri_ = withParameter(uri_, "target_session_attrs", "read-write");
  }

  std::unique_ptr<soci::session> connect() const override {
    std::unique_ptr<soci::session> session;
    try {
      session = std::make_unique<soci::session>(*soci::factory_postgresql(), uri_);
    } catch (const std::exception& fault) {
      throw Unreachable(reasonOf(fault));
    }
    for (const char* const setting : kSettings) *session << setting;
    return session;
  }

  // The text is not repeated: where it begins otherwise nobody knows what in it is a password.
  CWmError check() const override {
    if (uri_.starts_with("postgresql://") || uri_.starts_with("postgres://")) return {};
    return {kLqErrArgument, "a database is named by a URI such as postgresql://hub@db1,db2/overhub"};
  }
  CWmError prepare() const override { return check(); }

  Fault faultOf(const std::exception& fault) const override {
    const std::string state = stateOf(fault);
    // A deadlock, a state that has moved on, a lock that was not had in time; a table or a row that somebody
    // else has made meanwhile.
    for (const char* const known : {"40P01", "40001", "55P03", "42P07", "23505"})
      if (state == known) return Fault::kOutOfTurn;
    if (dynamic_cast<const Unanswered*>(&fault) != nullptr) return Fault::kUnanswered;
    return isLost(fault) ? Fault::kLost : Fault::kOther;
  }

  std::string explain(const std::exception& fault) const override {
    std::string text = place() + ": " + reasonOf(fault);
    const std::string state = stateOf(fault);
    if (state == "42501" || state.starts_with("28"))
      return text + "; see that its user may connect, and owns the tables";
    if (state == "53100") return text + "; free space on its disk, nothing was changed";
    if (text.ends_with("does not exist")) return text + "; make it, or name the right one with --store";
    if (isLost(fault)) return text + "; see that PostgreSQL runs there";
    return text;
  }

  std::string doubt(soci::session& session) const override {
    std::string value;
    session << "SELECT setting FROM pg_settings WHERE name = 'synchronous_commit'", soci::into(value);
    if (value != "off" && value != "local") {
      session << "SELECT setting FROM pg_settings WHERE name = 'fsync'", soci::into(value);
      if (value != "off") return {};
      return place() + " runs with fsync = off: a power cut may damage the store";
    }
    return place() + " runs with synchronous_commit = " + value +
           ": a crash may lose what was acknowledged last";
  }

  // Not by a statement of the library's, which waits without end for a standby that is away. The server tells
  // one whose wait is ended that all is well, though nobody else may have what was written: so after that the
  // answer does not count.
  void commit(soci::session& session) const override {
    PGconn* const connection = static_cast<soci::postgresql_session_backend*>(session.get_backend())->conn_;
    if (PQsendQuery(connection, "COMMIT") == 0) throw lostAt(connection);
    if (!awaitAnswer(connection, commitPatience_)) {
      cancel(connection);
      throw Unanswered("it has not confirmed a COMMIT for " + std::to_string(commitPatience_.count() / 1000) +
                       " s; see that its synchronous standby is there");
    }
    const std::unique_ptr<PGresult, decltype(&PQclear)> answer(PQgetResult(connection), PQclear);
    if (!answer) throw lostAt(connection);
    const char* const state = PQresultErrorField(answer.get(), PG_DIAG_SQLSTATE);
    if (PQresultStatus(answer.get()) != PGRES_COMMAND_OK)
      throw soci::postgresql_soci_error(PQresultErrorMessage(answer.get()),
                                        state != nullptr ? state : "08000");
    while (const std::unique_ptr<PGresult, decltype(&PQclear)> rest{PQgetResult(connection), PQclear}) {
    }
  }

  const char* beginReading() const override { return "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY"; }
  const char* beginWriting() const override { return "BEGIN"; }
  bool writesOneAtATime() const override { return false; }
  // Where a statement finds them, which need not be the public schema.
  const char* tables() const override {
    return "SELECT CASE WHEN to_regclass('counters') IS NULL THEN 0 ELSE 1 END, COUNT(*) FROM pg_tables WHERE"
           " schemaname = current_schema()";
  }
  // Rounded down, as a machine reads its own clock; the cast alone would be up to half a second ahead.
  const char* now() const override { return "CAST(FLOOR(EXTRACT(EPOCH FROM clock_timestamp())) AS BIGINT)"; }

 private:
  std::string uri_;
  std::chrono::milliseconds commitPatience_;
};

}  // namespace

std::unique_ptr<Engine> postgresqlEngine(const std::string& uri, std::chrono::milliseconds commitPatience) {
  return std::make_unique<Postgresql>(uri, commitPatience);
}
