// What strangers write, as a log or a terminal gets it.

#include <gmock/gmock.h>

#include <glib.h>

#include "common/Text.h"

namespace kel::test {

using tools::IsoTime;
using tools::Printable;
using tools::PrintableStart;

TEST(PrintableText, IsWhatItIsWhenItIsPlain)
{
    for (const char* const text :
         {"", " ", "proc-main-ALWAYS.log", "/a b/~", "\xc3\xa4", "\xe2\x82\xac", "\xf0\x9f\x98\x80",
          "\xe0\xa4\xa8\xe0\xa5\x80", "re\xcc\x81gle", "\xef\xbf\xbd"}) {
        EXPECT_EQ(Printable(text), text);
    }
}

TEST(PrintableText, HasWhatSteersATerminalAsEscapes)
{
    EXPECT_EQ(Printable(std::string("a\0b\t\n\r\x1b[31m\x7f", 12)),
              "a\\x00b\\x09\\x0a\\x0d\\x1b[31m\\x7f");
    EXPECT_EQ(Printable("\xc2\x80\xc2\x9b\xc2\x9f"), "\\xc2\\x80\\xc2\\x9b\\xc2\\x9f");
}

TEST(PrintableText, HasWhatIsNotSeenOrTurnsTheLineAsEscapes)
{
    for (const gunichar character :
         {0x00ad, // a hyphen that shows at the end of a line
          0x061c,  0x200e, 0x200f, 0x202a, 0x202b, 0x202c, 0x202d, 0x202e, 0x2066, 0x2067, 0x2068,
          0x2069,                                  // directions
          0x200b,  0x200c, 0x200d, 0x2060, 0xfeff, // no width
          0x2028,  0x2029,                         // ends of a line and of a paragraph
          0xe0001, 0xe0041}) {
        char text[8] = {};
        g_unichar_to_utf8(character, text);
        const std::string printable = Printable(text);
        EXPECT_EQ(printable.substr(0, 2), "\\x") << character;
        EXPECT_EQ(printable.size(), 4 * std::string(text).size()) << character;
    }
    EXPECT_EQ(Printable("a\xe2\x80\xae.txt"), "a\\xe2\\x80\\xae.txt");
}

TEST(PrintableText, HasWhatIsNoUtf8AsEscapes)
{
    EXPECT_EQ(Printable("a\x9b\xff"), "a\\x9b\\xff");
    EXPECT_EQ(Printable("\xc2"), "\\xc2");
    EXPECT_EQ(Printable("\xe2\x82"), "\\xe2\\x82");
    EXPECT_EQ(Printable("\xe2\x82 "), "\\xe2\\x82 ");
    EXPECT_EQ(Printable("\xc0\xaf"), "\\xc0\\xaf");                   // a slash that is too long
    EXPECT_EQ(Printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");          // half of a pair
    EXPECT_EQ(Printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80"); // behind the last one
}

TEST(PrintableText, OfTwoTextsIsNeverTheSame)
{
    EXPECT_EQ(Printable("\\x0a"), "\\x5cx0a");
    EXPECT_EQ(Printable("\n"), "\\x0a");
}

TEST(PrintableText, KeepsWhatItIsToldTo)
{
    EXPECT_EQ(Printable("a\\_b\tc\n", "\t\\"), "a\\_b\tc\\x0a");
}

TEST(PrintableText, IsUtf8WhateverItIsMadeOf)
{
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            const std::string text{static_cast<char>(first), static_cast<char>(second), '\x80'};
            const std::string printable = Printable(text);
            EXPECT_TRUE(
                g_utf8_validate(printable.data(), static_cast<gssize>(printable.size()), nullptr))
                << first << " " << second;
        }
    }
}

TEST(PrintableText, OfALongOneIsItsStartAndItsSize)
{
    EXPECT_EQ(PrintableStart("short\n"), "short\\x0a");
    EXPECT_EQ(PrintableStart(std::string(200, 'x')), std::string(200, 'x'));
    EXPECT_EQ(PrintableStart(std::string(16 << 20, 'x')),
              std::string(200, 'x') + "... (16777216 bytes)");
    EXPECT_EQ(PrintableStart("ab\ncd", 5), "ab... (5 bytes)");       // no part of an escape
    EXPECT_EQ(PrintableStart("a\xe2\x82\xac", 3), "a... (4 bytes)"); // nor of a character
}

TEST(IsoTimeText, IsInUtcWithMilliseconds)
{
    EXPECT_EQ(IsoTime({0, 0}), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(IsoTime({1'700'000'000, 123'999'999}), "2023-11-14T22:13:20.123Z");
}

} // namespace kel::test
