// Points in time as this program writes them, in files and in tables: "2026-11-22T20:11:08Z".
#pragma once

#include <ctime>
#include <string>

std::string utcText(std::time_t time);
