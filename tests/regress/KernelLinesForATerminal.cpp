// kelctl klog passed what the kernel's lines hold on to the terminal.

#include <gmock/gmock.h>

#include "e2e/KelctlTest.h"

namespace kel::test {

TEST_F(KelctlTest, KernelLinesArePlainText)
{
    const std::string lines = "a\tb \\_SB.PCI0 \\x1b \xc3\xa4\n"
                              "\x1b]0;title\x07 \x9b \xc2\x9b \x7f \xe2\x80\xae \xff\n";
    const std::string plain = "a\tb \\_SB.PCI0 \\x1b \xc3\xa4\n"
                              "\\x1b]0;title\\x07 \\x9b \\xc2\\x9b \\x7f \\xe2\\x80\\xae \\xff\n";
    SetKernelLog(lines);

    const TSFinished once = Klog();
    const std::unique_ptr<ChildProcess> followed = FollowKlog();
    EXPECT_TRUE(followed->WaitForOutput("\\xff\n")) << followed->Output();

    EXPECT_EQ(once.m_exit, 0) << Text(once);
    EXPECT_EQ(once.m_output, plain);
    EXPECT_EQ(followed->Output(), plain);
}

} // namespace kel::test
