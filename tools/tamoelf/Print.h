// The listings of `info` (laid out as readelf -h -S -s -r users expect) and
// its JSON document, and the problem report of `check`.
#pragma once

#include <ostream>
#include <string>

#include <nlohmann/json.hpp>

#include "Survey.h"

namespace tool {

void printText(std::ostream& out, const Survey& file);
// The two parts of an archive's listing, for printing it as it is read:
// the archive's own parts, then each member's object.
void printArchiveHead(std::ostream& out, const Archive& archive);
void printMember(std::ostream& out, const Member& member);
nlohmann::json toJson(const Survey& file);
// A document as info --json prints it. Names are the file's bytes: one that
// is not UTF-8 gets U+FFFD in place of each bad byte.
std::string jsonText(const nlohmann::json& document);

// One line per problem: file, place, code, message, context, and what was
// done. Returns how many there were.
size_t printProblems(std::ostream& out, const Survey& file);

// One line per note ("file: place: note: ..."), which are not problems.
void printNotes(std::ostream& out, const Survey& file);

}  // namespace tool
