// What reports are written with, beside a whole library of JSON; and what is read of them.

#include <random>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "reports/Json.h"
#include "reports/ReportText.h"

namespace kel::test {

using agent::OriginIn;
using agent::TCJsonWriter;
using agent::ToJson;
using agent::TSOrigin;
using TReference = nlohmann::ordered_json;

namespace {

std::string Dump(const TReference& value)
{
    return value.dump(2, ' ', false, TReference::error_handler_t::replace);
}

// Parts that JSON and UTF-8 begin, go on with, end with and refuse, in any order.
std::string Mixed(std::mt19937& random, const std::vector<std::string>& parts)
{
    std::string text;
    for (size_t count = random() % 9; count != 0; --count) {
        text += parts[random() % parts.size()];
    }
    return text;
}

} // namespace

TEST(Json, ATextOfAnyBytesIsWrittenAsTheReferenceDoes)
{
    for (int a = 0; a < 256; ++a) {
        for (int b = 0; b < 256; ++b) {
            const std::string two = {static_cast<char>(a), static_cast<char>(b)};
            ASSERT_EQ(ToJson(two), Dump(two)) << a << " " << b;
        }
    }
    std::mt19937 random(1);
    const std::vector<std::string> bytes
        = {"a",    "\"",   "\\",   "/",    "\n",   "\x01", "\x7f", "\x80", "\x8f", "\x90", "\x9f",
           "\xa0", "\xbf", "\xc1", "\xc2", "\xdf", "\xe0", "\xed", "\xef", "\xf0", "\xf4", "\xf5"};
    for (int i = 0; i < 50'000; ++i) {
        const std::string text = Mixed(random, bytes);
        ASSERT_EQ(ToJson(text), Dump(text))
            << TReference(std::vector<unsigned char>(text.begin(), text.end()));
    }
}

TEST(Json, AnObjectIsWrittenAsTheReferenceDoes)
{
    TCJsonWriter text;
    text.Add("text", "a \"word\"");
    text.Add("number", -7);
    text.Add("large", std::numeric_limits<std::uint64_t>::max());
    text.Add("truth", true);
    text.Add("some", std::optional<std::string>("one"));
    text.Add("none", std::optional<bool>());
    text.Begin("inside");
    text.Add("null", nullptr);
    text.Begin("deeper");
    text.Add("false", false);
    text.End();
    text.End();
    text.Begin("empty");
    text.End();
    text.End();

    TReference reference;
    reference["text"] = "a \"word\"";
    reference["number"] = -7;
    reference["large"] = std::numeric_limits<std::uint64_t>::max();
    reference["truth"] = true;
    reference["some"] = "one";
    reference["none"] = nullptr;
    reference["inside"]["null"] = nullptr;
    reference["inside"]["deeper"]["false"] = false;
    reference["empty"] = TReference::object();
    EXPECT_EQ(text.Text(), Dump(reference));
}

TEST(Json, OfARequestItsOriginIsRead)
{
    const TSOrigin read = OriginIn(
        R"({"stamp": "no", "id": 1, "request": {"stamp": "a\u00e4", "more": {"stamp": "no"},
            "list": [{"user": 1}, "no"], "user": 7, "cut": false}, "after": {"user": 2}})");

    EXPECT_EQ(read.m_stamp, "a\u00e4");
    EXPECT_EQ(read.m_user, 7U);
}

TEST(Json, WhatIsNoReportHasNoOrigin)
{
    for (const std::string text :
         {"", "{}", "[]", "7", R"([{"request": {"stamp": "no", "user": 1}}])",
          R"({"request": [{"stamp": "no", "user": 1}]})", R"({"request": "stamp", "user": 1})",
          R"({"request": {"stamp": 1, "user": "1"}})", R"({"request": {"user": 4294967296}})",
          R"({"request": {"user": -1, "stamp": ["no"]}})",
          R"({"request": {"stamp": "cut", "user": 1)",
          "{\"request\": {\"stamp\": \"\xff\", \"user\": 1}}"}) {
        const TSOrigin read = OriginIn(text);
        EXPECT_EQ(read.m_stamp, "") << text;
        EXPECT_FALSE(read.m_user) << text;
    }
    OriginIn(std::string(100'000, '[')); // as deep as it likes
}

} // namespace kel::test
