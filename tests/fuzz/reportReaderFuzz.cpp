// Report files as qv-smart-report reads them: the input is the whole file,
// read document by document with resynchronisation after damage. Findings:
// an exception escaping the reader, documents whose lines run backwards, a
// read that does not end, and every sanitizer report (deep nesting
// included). Damage may be noticed past the start of the document the reader
// then resumes at, so its lines are not ordered with the documents'.

#include "fuzzInput.hpp"
#include "reportDocument.hpp"

#include <cstdint>
#include <sstream>
#include <string>

using fuzzing::finding;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::istringstream in(
        std::string(reinterpret_cast<const char*>(data), size));
    qvreport::ReportReader reader(in);
    int lastLine = 0;
    // Every document takes at least two octets ("{}").
    for (size_t documents = 0;; ++documents)
    {
        if (documents > size / 2 + 1)
        {
            finding("more documents than the input can hold");
        }
        auto document = reader.next();
        for (const auto& problem : reader.problems())
        {
            if (problem.line < 1)
            {
                finding("a problem without a line");
            }
        }
        if (!document)
        {
            return 0;
        }
        if (document->line < lastLine)
        {
            finding("a document's line runs backwards");
        }
        lastLine = document->line;
    }
}
