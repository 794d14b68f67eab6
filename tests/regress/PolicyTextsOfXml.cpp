// The agent's own rules of XML accepted texts that no XML parser takes, and refused right ones.

#include <string>

#include <gtest/gtest.h>

#include "policy/PolicyText.h"

namespace kel::test {

using agent::EPolicyText;
using agent::TSPolicyText;

namespace {

EPolicyText Verdict(const std::string& text)
{
    std::string reason;
    return TSPolicyText::Judge(text, reason);
}

} // namespace

TEST(PolicyTextOfXml, WhatNoParserTakesIsRefused)
{
    const char* const texts[] = {
        "<a b='<'/>",                                     // "<" in an attribute
        "<a b='1'c='2'/>",                                // no blank between attributes
        "<a>]]></a>",                                     // the end of a section that has not begun
        "<a><!-- -- --></a>",                             // a comment's end inside
        "<a><!-- a ---></a>",                             //
        "<?xml version='1.0'?><?xml version='1.0'?><a/>", // a second declaration
        " <?xml version='1.0'?><a/>",                     // one that is not at the start
        "<a><?xml version='1.0'?></a>",                   //
        "<?xml?><a/>",                                    // one that says nothing
        "<?xml version='1.0' standalone='maybe'?><a/>",
        "<?xml encoding='UTF-8' version='1.0'?><a/>",
        "<?xml version='1.0' encoding='UTF-16'?><a/>",
        "<?xml version='1.0' encoding='none such'?><a/>",
        "<!DOCTYPE><a/>",                             // a document type without a name
        "<!DOCTYPE a garbage><a/>",                   //
        "<!DOCTYPE a SYSTEM><a/>",                    //
        "<!DOCTYPE a [<garbage>]><a/>",               //
        "<!DOCTYPE a [<!ELEMENT>]><a/>",              //
        "<a>\xef\xbf\xbf</a>",                        // U+FFFF
        "<a>&#xffff;</a>",                            //
        "<a>&#xfffe;</a>",                            //
        "<a>&#xd800;</a>",                            // half of a pair
        "<a><?\?></a>",                               // an instruction without a name
        "<a><? b?></a>",                              //
        "<a><?XML b?></a>",                           // a reserved one
        "<!doctype a><a/>",                           //
        "<a b='&unknown;'/>",                         //
        "<!DOCTYPE a [<!ENTITY e '<b>'>]><a>&e;</a>", // half an element
        "<!DOCTYPE a [<!ENTITY e '&f;'><!ENTITY f '&e;'>]><a>&e;</a>",
    };
    for (const char* const text : texts) {
        EXPECT_EQ(Verdict(text), EPolicyText::NotWellFormed) << text;
    }
}

TEST(PolicyTextOfXml, RightOnesAreTaken)
{
    std::string many = "<a";
    for (int i = 0; i < 1200; ++i) {
        many += " a" + std::to_string(i) + "=''";
    }
    const std::string texts[] = {
        "<\xe0\xa4\xa8\xe0\xa5\x80\xe0\xa4\xa4\xe0\xa4\xbf/>", // Hindi, with vowel signs
        "<\xe0\xb8\x99\xe0\xb8\xb5\xe0\xb9\x88/>",             // Thai, with a tone
        "<\xe0\xae\xa8\xe0\xaf\x80/>",                         // Tamil
        "<\xe0\xa6\xa8\xe0\xa7\x80/>",                         // Bengali
        "<a\xe0\xa5\xa7/>",                                    // a digit of Hindi
        "<a\xe0\xb9\x91 b\xe0\xb9\x91=''/>",                   // of Thai
        "<re\xcc\x81gle/>",                                    // an accent of its own
        "<!DOCTYPE a SYSTEM 'a>b'><a/>",
        "<!DOCTYPE a PUBLIC 'a' \"a>b\"><a/>",
        "<!DOCTYPE a [<!ENTITY e '>'><!-- > --><?b >?>]><a>&e;</a>",
        "<!DOCTYPE a [<!ENTITY e 'text'>]><a b='&e;'>&e;</a>",
        "<!DOCTYPE a [<!ELEMENT a (b|c)*><!ATTLIST a b CDATA 'c'>]><a/>",
        "<!-->--><a/>",
        "<a><!-->--></a>",
        "<a/><?b?><!-- c -->",
        many + "/>",
    };
    for (const std::string& text : texts) {
        EXPECT_EQ(Verdict(text), EPolicyText::WellFormed) << text;
    }
}

} // namespace kel::test
