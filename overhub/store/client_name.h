// How a client may be called at the server, and how a group may name its members.
#pragma once

#include <string>

// Whether it can be a client's name, which is also the name of its files: 1 to 64 characters of
// A-Z a-z 0-9 . _ - without a dot at the start.
bool isClientName(const std::string& name);

// Whether it can name members of a group: a client's name, or a live pattern of names (groups.h), in which *,
// ? and what sets of characters are written with may stand as well.
bool isMemberName(const std::string& text);
