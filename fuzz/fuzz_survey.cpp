// The tool's info and check on fuzzed files: the input is the whole file (an
// object or archive of this format, a standard object, anything), surveyed
// with every section converted both ways as check does, then listed as
// text, as one JSON document (printed as it is read, which must equal the
// whole document) and as the problem report. Nothing may crash,
// read outside a buffer, leak or throw anything but the tool's Failure.
#include <sys/mman.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "FuzzCommon.h"
#include "Print.h"
#include "Survey.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::once();
    const int fd = memfd_create("survey", 0);
    if (fd < 0) return 0;
    if (write(fd, data, size) == static_cast<ssize_t>(size)) {
        try {
            // JSON printed as the survey goes must be the whole document's.
            std::ostringstream out, streamed;
            tool::JsonPrinter json(streamed, false);
            const tool::Survey s =
                tool::surveyFile("/proc/self/fd/" + std::to_string(fd), true, tool::Keep::All, json.events());
            json.file(s);
            json.finish();
            if (streamed.str() != tool::jsonText(tool::toJson(s)) + "\n") __builtin_trap();
            tool::printText(out, s);
            tool::printProblems(out, s);
            tool::printNotes(out, s);
        } catch (const tool::Failure&) {
            // Neither an object nor an archive: said, as the tool says it.
        }
    }
    close(fd);
    return 0;
}
