// A stranger's text on its way to a log or a terminal.

#include "Fuzz.h"
#include "common/Text.h"

using kel::fuzz::IsPlain;
using kel::fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text = kel::fuzz::TextFrom(data, size);
    const std::string printable = kel::tools::Printable(text);
    Require(IsPlain(printable) && printable.find('\n') == std::string::npos,
            "it is one line of plain text");

    // Escapes undone, it is the text again: no two look the same.
    std::string again;
    for (size_t i = 0; i < printable.size(); ++i) {
        if (printable[i] == '\\') {
            again += static_cast<char>(std::stoi(printable.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else {
            again += printable[i];
        }
    }
    Require(again == text, "it can be read back");

    const std::string start = kel::tools::PrintableStart(text, 20);
    Require(IsPlain(start) && start.size() <= 20 + sizeof("... (18446744073709551615 bytes)"),
            "its start is short and plain");
    return 0;
}
