// The archive that a policy comes in.

#include "policy/PolicyArchive.h"
#include "Fuzz.h"

using kel::agent::EPolicyArchive;
using kel::agent::TSPolicyArchive;
using kel::fuzz::BytesFrom;
using kel::fuzz::Require;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    constexpr size_t kMost = 64;
    std::string policy = "untouched";
    const EPolicyArchive read = TSPolicyArchive::Read(BytesFrom(data, size), kMost, policy);
    if (read == EPolicyArchive::Policy) {
        Require(policy.size() <= kMost && policy.size() < size,
                "a policy is a part of its archive");
        Require(
            std::string_view(reinterpret_cast<const char*>(data), size).substr(size - policy.size())
                == policy,
            "a policy is the end of its archive");
    } else {
        Require(policy == "untouched", "without a policy nothing is touched");
    }
    return 0;
}
