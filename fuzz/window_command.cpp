// The window-command line protocol: parseWindowCommandAnswer on whatever
// the tool might write, and windowCommandRequest on arbitrary text.
//
// An input is one byte for the length of the command's identifier, the
// identifier, then the answer (or the request's text).
//
// Checks, from the protocol's description: an answer is taken only when it
// is the identifier, a colon and a part without another colon, and then it
// says whether that part, read as a leading integer, is not 0; a request is
// "-t <tag> -c <identifier> -a <text>" and a line end, the text as it
// stands; an answer the tool writes the usual way is read back.
#include <cstdlib>
#include <optional>
#include <string>

#include "fuzz/FuzzSupport.hpp"
#include "integration/WindowCommandChannel.hpp"

using namespace vt;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::Input input(data, size);
    const std::string identifier(input.bytes(input.byte()));
    const std::string answer(input.rest());

    const std::optional<bool> verdict = parseWindowCommandAnswer(answer, identifier);
    const bool shaped = answer.size() > identifier.size() && answer.compare(0, identifier.size(), identifier) == 0
        && answer[identifier.size()] == ':' && identifier.find(':') == std::string::npos
        && answer.find(':', identifier.size() + 1) == std::string::npos;
    VT_FUZZ_CHECK(verdict.has_value() == shaped);
    if (verdict) {
        // The part after the colon up to its first NUL, as a C string.
        const std::string part = answer.substr(identifier.size() + 1).c_str();
        VT_FUZZ_CHECK(*verdict == (std::strtoll(part.c_str(), nullptr, 10) != 0));
    }

    // The tool's answer to a command: its number, a colon, the result.
    if (identifier.find(':') == std::string::npos) {
        for (const char* result : { "0", "1", "-7\n", "0\n" }) {
            const bool expected = std::strtoll(result, nullptr, 10) != 0;
            VT_FUZZ_CHECK(parseWindowCommandAnswer(identifier + ":" + result, identifier) == expected);
            // Two answers in one read are a mismatch.
            VT_FUZZ_CHECK(!parseWindowCommandAnswer(identifier + ":" + result + identifier + ":1", identifier));
        }
    }

    const int tag = static_cast<int>(size) - 128;
    const std::string request = windowCommandRequest(tag, identifier, answer);
    VT_FUZZ_CHECK(request == "-t " + std::to_string(tag) + " -c " + identifier + " -a " + answer + "\n");
    return 0;
}
