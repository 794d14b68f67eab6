// The name of a request's file.

#include <algorithm>

#include "Fuzz.h"
#include "requests/Request.h"

using kel::agent::ReadFileName;
using kel::agent::TSRequest;
using kel::fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string name = kel::fuzz::TextFrom(data, size);
    for (const size_t cutSize : {size_t(113), size}) {
        TSRequest request;
        if (!ReadFileName(name, cutSize, request)) {
            Require(request.m_process.empty() && request.m_thread.empty() && !request.m_mode
                        && !request.m_cut,
                    "a name that is none touches nothing");
            continue;
        }
        Require(name.compare(0, request.m_process.size(), request.m_process) == 0,
                "a name begins with the process");
        Require(name.find(request.m_thread) != std::string::npos, "a name holds the thread");
        Require(request.m_cut != request.m_mode.has_value(), "a name has a mode or was cut");
    }
    return 0;
}
