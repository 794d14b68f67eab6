// The value of the key that a request may be left in.

#include "Fuzz.h"
#include "requests/Request.h"

using kel::agent::ReadSlotValue;
using kel::agent::TSRequest;
using kel::fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string value = kel::fuzz::TextFrom(data, size);
    TSRequest request;
    if (!ReadSlotValue(value, request)) {
        Require(request.m_process.empty() && request.m_thread.empty() && !request.m_reboot
                    && !request.m_cut,
                "a value that is none touches nothing");
        return 0;
    }
    Require(value.compare(0, request.m_process.size(), request.m_process) == 0,
            "a value begins with the process");
    Require(value.find(request.m_thread) != std::string::npos, "a value holds the thread");
    Require(request.m_cut != request.m_reboot.has_value(), "a value tells of a restart or was cut");
    return 0;
}
