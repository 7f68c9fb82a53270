// Runs a query of the store and calls `each` for each row, with what it binds: soci::into() for the columns
// in their order, soci::use() for the parameters in theirs.
#pragma once

#include <soci/soci.h>

#include <string>
#include <utility>

template <class Each, class... Bound>
void forEachRow(soci::session& session, const std::string& query, Each each, Bound&&... bound) {
  soci::statement statement(session);
  (statement.exchange(std::forward<Bound>(bound)), ...);
  statement.alloc();
  statement.prepare(query);
  statement.define_and_bind();
  statement.execute();
  while (statement.fetch()) each();
}
