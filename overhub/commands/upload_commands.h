// The commands that look at what clients have uploaded of their registries. Each gives the program's exit
// code.
#pragma once

#include <string>

#include "overhub/store/data_store.h"

// A line for each client that has uploaded.
int listUploads(const DataStore& store);

// The keys and values of a client's newest upload.
int showUpload(const DataStore& store, const std::string& client);

// Copies a client's newest upload to a file that is not there yet.
int exportUpload(const DataStore& store, const std::string& client, const std::string& file);
