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

// info --json printed as the files are read, as jsonText would print their
// documents (one file's alone, several in a list): an archive's document
// as its members are read, and each document a list item at a time, so
// that no more than one item is held as JSON.
class JsonPrinter {
public:
    JsonPrinter(std::ostream& out, bool several);
    // For surveyFile: prints an archive as it is read.
    SurveyEvents events();
    // After a file's survey: an object's document, or the rest of the
    // archive's.
    void file(const Survey& survey);
    // After the last file.
    void finish();

private:
    void startDocument();
    size_t base() const { return several_ ? 2 : 0; }  // a document's indentation

    std::ostream& out_;
    bool several_;
    size_t documents_ = 0;
    size_t members_ = 0;  // printed of the archive being read
    std::string tail_;    // of the archive's document, after its members
};
// A document as info --json prints it. Names are the file's bytes: one that
// is not UTF-8 gets U+FFFD in place of each bad byte.
std::string jsonText(const nlohmann::json& document);

// One line per problem: file, place, code, message, context, and what was
// done. Returns how many there were.
size_t printProblems(std::ostream& out, const Survey& file);

// One line per note ("file: place: note: ..."), which are not problems.
void printNotes(std::ostream& out, const Survey& file);

}  // namespace tool
