// How commands tell a person, or a script, what came of them: results on standard output, complaints on
// standard error.
#pragma once

#include <string>

#include "lqregistry/CWmError.h"
#include "overhub/store/data_store.h"

void print(const std::string& text);

// Says on standard error what went wrong, and gives `exitCode` back.
int complain(int exitCode, const std::string& text);

// The same for two things that go wrong everywhere.
int dataUnusable(const CWmError& error);
int unknownClient(const DataStore& store, const std::string& client);
