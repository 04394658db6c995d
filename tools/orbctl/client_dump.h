// orbctl client dump: what a client's library says of itself.
#pragma once

#include <string>

namespace orb::orbctl {

// The library's "key: value" lines as one JSON object in ASCII: the dots of a key nest,
// "name=word" items are an object, digits alone a number. Lines, items and levels beyond
// what the library says are left out or not nested, whoever wrote the text.
std::string DumpJson(const std::string& text);

// The exit code.
int DumpClient(const std::string& client, bool json);

}  // namespace orb::orbctl
