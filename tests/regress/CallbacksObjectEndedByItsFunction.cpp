// A function that dropped the last pointer to its callbacks object was freed as it ran.

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <kel/KELCallbacksProxy.h>

namespace {

typedef std::vector<unsigned char> TBytes;

// Under AddressSanitizer a function that was freed as it ran is seen.
TEST(CallbacksProxyEnd, AFunctionMayDropTheLastPointerToTheObject)
{
    TBytes response;
    std::string said;
    const std::string word(64, 'w'); // longer than fits into a small string

    auto proxy = std::make_unique<kel::TCCallbacksProxy>();
    proxy->m_policyUpdateCb = [&proxy, &said, word] {
        proxy.reset();
        said += word;
    };
    EXPECT_TRUE(proxy->m_Callback(2, {}, response));

    proxy = std::make_unique<kel::TCCallbacksProxy>();
    proxy->m_requestProcessInfoCb = [&proxy, &said, word] {
        proxy.reset();
        said += word;
        return true;
    };
    EXPECT_TRUE(proxy->m_Callback(4, {}, response));

    EXPECT_EQ(said, word + word);
}

} // namespace
