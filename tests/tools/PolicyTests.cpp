// The parts of the agent that take a policy in, without the channel.

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>

#include <gmock/gmock.h>

#include "common/Text.h"
#include "policy/PolicyArchive.h"
#include "policy/PolicyStore.h"
#include "policy/PolicyText.h"
#include "support/Archives.h"
#include "support/PrivateBus.h"

namespace kel::test {

using agent::EPolicyArchive;
using agent::EPolicyText;
using agent::TCPolicyStore;
using agent::TSPolicyArchive;
using agent::TSPolicyText;
using testing::ElementsAre;
using testing::Not;
using namespace std::string_literals;

namespace {

typedef std::vector<unsigned char> TBytes;

constexpr char kUntouched[] = "untouched";
constexpr size_t kMost = 8 << 20;

// The process's peak of memory, in KiB.
long PeakMemory()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

MATCHER(IsRefused, "")
{
    std::string policy = kUntouched;
    return TSPolicyArchive::Read(arg, kMost, policy) == EPolicyArchive::NoPolicy
           && policy == kUntouched;
}

bool IsForeign(const TBytes& archive)
{
    std::string policy = kUntouched;
    return TSPolicyArchive::Read(archive, kMost, policy) == EPolicyArchive::Foreign
           && policy == kUntouched;
}

// A reason is one short line, and there is one unless the text is well-formed.
EPolicyText Verdict(const std::string& text)
{
    std::string reason = kUntouched;
    const EPolicyText verdict = TSPolicyText::Judge(text, reason);
    EXPECT_EQ(verdict == EPolicyText::WellFormed, reason == kUntouched);
    EXPECT_FALSE(reason.empty());
    EXPECT_LE(reason.size(), 200U) << reason;
    EXPECT_EQ(reason, tools::Printable(reason));
    return verdict;
}

MATCHER(IsWellFormed, "")
{
    const EPolicyText verdict = Verdict(arg);
    EXPECT_NE(verdict, EPolicyText::TooLarge);
    return verdict == EPolicyText::WellFormed;
}

std::string Nested(size_t depth)
{
    std::string text;
    for (size_t i = 0; i < depth; ++i) {
        text += "<a>";
    }
    for (size_t i = 0; i < depth; ++i) {
        text += "</a>";
    }
    return text;
}

std::string OfSize(size_t size) { return "<a>" + std::string(size - 7, 'x') + "</a>"; }

// Each entity is made of the one before, which is an "e" of how it is used.
std::string EntitiesOfEntities(size_t count, const char* use, const std::string& last)
{
    std::string text = "<!DOCTYPE a [<!ENTITY e0 \"" + last + "\">";
    for (size_t i = 0; i < count; ++i) {
        std::string value;
        for (const char* c = use; *c != '\0'; ++c) {
            value += *c == 'e' ? "&e" + std::to_string(i) + ";" : std::string(1, *c);
        }
        text += "<!ENTITY e" + std::to_string(i + 1) + " \"" + value + "\">";
    }
    return text + "]><a>&e" + std::to_string(count) + ";</a>";
}

} // namespace

TEST(PolicyArchive, ReadsTheStringThatTheArchiveLibraryWrote)
{
    for (const std::string& text : {std::string("<policy/>"), std::string(), std::string("a\0b", 3),
                                    std::string(4 << 20, 'x')}) {
        std::string policy = kUntouched;

        EXPECT_EQ(TSPolicyArchive::Read(ArchiveOf(text), kMost, policy), EPolicyArchive::Policy);

        EXPECT_EQ(policy, text);
    }
}

TEST(PolicyArchive, WritesTheIntThatTheArchiveLibraryReads)
{
    for (const int answer : {0, 1, 2, -1, std::numeric_limits<int>::min()}) {
        TBytes archive{1, 2, 3};

        TSPolicyArchive::Write(answer, archive);

        EXPECT_EQ(archive, ArchiveOf(answer));
    }
}

TEST(PolicyArchive, OfAStringThatIsTooLongNothingIsCopied)
{
    const TBytes archive = ArchiveOf(std::string(kMost + 1, 'x'));
    std::string policy = kUntouched;
    const long before = PeakMemory();

    EXPECT_EQ(TSPolicyArchive::Read(archive, kMost, policy), EPolicyArchive::TooLarge);

    EXPECT_EQ(policy, kUntouched);
    EXPECT_LT(PeakMemory() - before, 4 << 10);
    EXPECT_EQ(TSPolicyArchive::Read(archive, kMost + 1, policy), EPolicyArchive::Policy);
}

TEST(PolicyArchive, RefusesEveryPartOfAnArchive)
{
    const TBytes whole = ArchiveOf(std::string("<policy/>"));

    for (size_t length = 0; length < whole.size(); ++length) {
        EXPECT_THAT(TBytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(length)),
                    IsRefused())
            << length;
    }
}

TEST(PolicyArchive, RefusesBytesBehindTheString)
{
    TBytes archive = ArchiveOf(std::string("<policy/>"));
    archive.push_back('x');

    EXPECT_THAT(archive, IsRefused());
}

TEST(PolicyArchive, RefusesForgedLengthsWithoutMemory)
{
    const TBytes whole = ArchiveOf(std::string("<policy/>"));
    const size_t most = std::numeric_limits<size_t>::max();
    const long before = PeakMemory();

    for (const size_t length : {size_t(0), size_t(8), size_t(10), size_t(1) << 28, size_t(1) << 31,
                                most / 2, most / 2 + 1, most - 7, most}) {
        EXPECT_THAT(WithLength(whole, 0, length), IsRefused()) << length;
        EXPECT_THAT(WithLength(whole, kStringLengthAt, length), IsRefused()) << length;
    }

    EXPECT_LT(PeakMemory() - before, 16 << 10);
}

TEST(PolicyArchive, RefusesAnotherSignatureVersionOrMachine)
{
    const TBytes whole = ArchiveOf(std::string("<policy/>"));

    TBytes signature = whole;
    signature[kSignatureAt] ^= 1;
    EXPECT_THAT(signature, IsRefused());

    for (const unsigned char old : {0, 5, 6, 7}) { // their version takes one byte or two
        TBytes version = whole;
        version[kVersionAt] = old;
        EXPECT_THAT(version, IsRefused()) << int(old);
    }
    TBytes newer = whole;
    newer[kVersionAt] = 255;
    EXPECT_TRUE(IsForeign(newer));

    for (size_t at = kNativeAt; at < kStringLengthAt; ++at) {
        TBytes native = whole;
        native[at] ^= 64;
        EXPECT_TRUE(IsForeign(native)) << at;
    }
}

// What the archive library writes of "policy" on machines of either word size.
TEST(PolicyArchive, OfAMachineOfAnotherWordSizeIsForeign)
{
    const TBytes own = ArchiveOf(std::string("policy"));
    const char version = static_cast<char>(own[kVersionAt]);
    const auto archive = [version](const std::string& word, char longSize) {
        const auto length = [&word](char value) { return value + word; };
        const std::string text = length(22) + "serialization::archive" + version + '\0' + "\4"s
                                 + longSize + "\4\10\1\0\0\0"s + length(6) + "policy";
        return TBytes(text.begin(), text.end());
    };
    const TBytes small = archive("\0\0\0"s, 4);
    const TBytes large = archive("\0\0\0\0\0\0\0"s, 8);

    EXPECT_EQ(small.size(), 46U);
    EXPECT_EQ(large.size(), 54U);
    EXPECT_EQ(sizeof(size_t) == 8 ? large : small, own);
    EXPECT_TRUE(IsForeign(sizeof(size_t) == 8 ? small : large));
}

TEST(PolicyText, OneElementIsEnough)
{
    EXPECT_THAT("<policy/>", IsWellFormed());
    EXPECT_THAT(" \n<policy version='1'>text &amp; more &#65; \xc3\xa4</policy>\n ",
                IsWellFormed());
    EXPECT_THAT(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><!-- a --><a><!-- b --><b/></a><!-- c -->",
        IsWellFormed());
    EXPECT_THAT("<!DOCTYPE a><a/>", IsWellFormed());
    EXPECT_THAT("<a><![CDATA[<b> & ]]></a>", IsWellFormed());
    EXPECT_THAT("\xef\xbb\xbf<a/>", IsWellFormed()); // a byte order mark
}

TEST(PolicyText, WithoutAnElementThereIsNoPolicy)
{
    for (const char* text : {"", " ", "\n\t", "text", "<!-- a -->", "<?xml version=\"1.0\"?>",
                             "<!DOCTYPE a>", "<![CDATA[a]]>", "\xef\xbb\xbf"}) {
        EXPECT_THAT(text, Not(IsWellFormed())) << text;
    }
}

TEST(PolicyText, BrokenMarkupIsRefused)
{
    for (const char* text : {"<", "<a", "<a>", "</a>", "<a></b>", "<a><b></a></b>", "<a b></a>",
                             "<a b=c/>", "<a b='c/>", "<a>&</a>", "<a>&unknown;</a>", "<a>&#0;</a>",
                             "<a/", "<a><!-- </a>", "<1/>", "<a>\xff</a>", "<a>\xc0\x80</a>"}) {
        EXPECT_THAT(text, Not(IsWellFormed())) << text;
    }
}

TEST(PolicyText, ThereIsOneRootAndNothingBesideIt)
{
    for (const char* text :
         {"<a/><b/>", "<a></a><a></a>", "<a/>text", "text<a/>", "<a/><![CDATA[text]]>",
          "<![CDATA[text]]><a/>", "<a/><!DOCTYPE a>", "<!DOCTYPE a><!DOCTYPE a><a/>"}) {
        EXPECT_THAT(text, Not(IsWellFormed())) << text;
    }
}

TEST(PolicyText, AttributesDoNotRepeat)
{
    EXPECT_THAT("<a b='1' c='2'><a b='1'/></a>", IsWellFormed());
    EXPECT_THAT("<a b='1' b='2'/>", Not(IsWellFormed()));
}

TEST(PolicyText, ControlCharactersAreRefusedWhereverTheyStand)
{
    EXPECT_THAT("<a b='\t'>\r\n\t</a>", IsWellFormed());
    EXPECT_THAT(std::string("<a/>\0", 5), Not(IsWellFormed()));
    EXPECT_THAT(std::string("\0<a/>", 5), Not(IsWellFormed()));
    EXPECT_THAT(std::string("<a>\0</a>", 8), Not(IsWellFormed()));
    EXPECT_THAT("<a>\x01</a>", Not(IsWellFormed()));
    EXPECT_THAT("<a>&#1;</a>", Not(IsWellFormed()));
    EXPECT_THAT("<a b='&#x1f;'/>", Not(IsWellFormed()));
}

TEST(PolicyText, IsUtf8WhateverItDeclares)
{
    EXPECT_THAT("<?xml version='1.0' encoding='utf-8'?><a>\xc3\xa4</a>", IsWellFormed());
    EXPECT_THAT("<?xml version='1.0' encoding='ISO-8859-1'?><a>a</a>", IsWellFormed());

    EXPECT_THAT("<?xml version='1.0' encoding='ISO-8859-1'?><a>\xe4</a>", Not(IsWellFormed()));
    EXPECT_THAT(std::string("\xff\xfe<\0a\0/\0>\0", 10), Not(IsWellFormed()));
    EXPECT_THAT(std::string("\xfe\xff\0<\0a\0/\0>", 10), Not(IsWellFormed()));
    EXPECT_THAT(std::string("<\0a\0/\0>\0", 8), Not(IsWellFormed()));
}

TEST(PolicyText, OutsideItselfNothingIsRead)
{
    EXPECT_THAT("<!DOCTYPE a SYSTEM '/dev/zero'><a/>", IsWellFormed());
    EXPECT_THAT("<!DOCTYPE a [<!ENTITY e SYSTEM '/dev/zero'>]><a>&e;</a>", IsWellFormed());
    EXPECT_THAT("<!DOCTYPE a [<!ENTITY % e SYSTEM '/dev/zero'> %e;]><a/>", IsWellFormed());
}

TEST(PolicyText, HasAMebibyteAtMost)
{
    EXPECT_EQ(Verdict(OfSize(TSPolicyText::kMostBytes)), EPolicyText::WellFormed);
    EXPECT_EQ(Verdict(OfSize(TSPolicyText::kMostBytes + 1)), EPolicyText::TooLarge);
}

TEST(PolicyText, HasSoManyElementsInsideOneAnotherAtMost)
{
    EXPECT_EQ(Verdict(Nested(TSPolicyText::kMostDepth)), EPolicyText::WellFormed);
    EXPECT_EQ(Verdict(Nested(TSPolicyText::kMostDepth + 1)), EPolicyText::TooLarge);
    EXPECT_EQ(Verdict(EntitiesOfEntities(1, "<a>e</a>", Nested(TSPolicyText::kMostDepth))),
              EPolicyText::TooLarge);
    EXPECT_EQ(Verdict("<a>" + Nested(100) + Nested(250) + "</a>"), EPolicyText::WellFormed);
}

TEST(PolicyText, WhatItsEntitiesStandForHasABound)
{
    EXPECT_EQ(Verdict(EntitiesOfEntities(10, "ee", "text")), EPolicyText::WellFormed);
    EXPECT_EQ(Verdict(EntitiesOfEntities(40, "ee", "text")), EPolicyText::TooLarge);
    EXPECT_EQ(Verdict(EntitiesOfEntities(1, "eeeeeeeeee", std::string(900'000, 'x'))),
              EPolicyText::TooLarge);
}

TEST(PolicyText, AChainOfEntitiesHasABound)
{
    // Of 40,000 the parser itself does not come back.
    EXPECT_EQ(Verdict(EntitiesOfEntities(TSPolicyText::kMostDepth, "e", "text")),
              EPolicyText::WellFormed);
    EXPECT_EQ(Verdict(EntitiesOfEntities(TSPolicyText::kMostDepth + 1, "e", "text")),
              EPolicyText::TooLarge);
    EXPECT_EQ(Verdict(EntitiesOfEntities(40'000, "e", "text")), EPolicyText::TooLarge);
}

TEST(PolicyText, DeclaredAttributesTakeNoQuarterOfAMinute)
{
    std::string declared = "<!DOCTYPE a [<!ATTLIST a";
    for (int i = 0; declared.size() < TSPolicyText::kMostBytes / 2; ++i) {
        declared += " a" + std::to_string(i) + " CDATA ''";
    }
    declared += ">]><a>";
    while (declared.size() < TSPolicyText::kMostBytes - 10) {
        declared += "<a/>";
    }

    EXPECT_EQ(Verdict(declared + "</a>"), EPolicyText::TooLarge);
    EXPECT_EQ(Verdict("<!DOCTYPE a [<!ATTLIST a b CDATA 'c'>]><a><a/></a>"),
              EPolicyText::WellFormed);
}

class PolicyStore : public testing::Test
{
protected:
    PolicyStore() : m_directory(MakeDirectory()) {}
    ~PolicyStore() override { std::filesystem::remove_all(m_directory); }

    std::string Stored() const
    {
        std::ifstream file(m_directory + "/policy.xml");
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::vector<std::string> Names() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_directory)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    const std::string m_directory;
    std::string m_reason = kUntouched;
};

TEST_F(PolicyStore, KeepsTheLatestPolicyInOneFileThatStrangersCannotRead)
{
    const TCPolicyStore store(m_directory);
    umask(0);

    EXPECT_TRUE(store.Store("<long><policy/></long>", m_reason));
    EXPECT_TRUE(store.Store("<policy/>", m_reason));

    EXPECT_EQ(Stored(), "<policy/>");
    EXPECT_THAT(Names(), ElementsAre("policy.xml"));
    struct stat status = {};
    ASSERT_EQ(stat((m_directory + "/policy.xml").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    EXPECT_EQ(m_reason, kUntouched);
}

TEST_F(PolicyStore, WhoeverHasTheOldPolicyOpenReadsItToItsEnd)
{
    const TCPolicyStore store(m_directory);
    ASSERT_TRUE(store.Store("old", m_reason));
    std::ifstream old(m_directory + "/policy.xml");

    ASSERT_TRUE(store.Store("new", m_reason));

    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(old), {}), "old");
}

TEST_F(PolicyStore, AMissingDirectoryIsAReasonAndIsNotMade)
{
    const std::string missing = m_directory + "/missing";

    EXPECT_FALSE(TCPolicyStore(missing).Store("<policy/>", m_reason));

    EXPECT_EQ(m_reason, missing + ": No such file or directory");
    EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(PolicyStore, AFileInPlaceOfTheDirectoryIsAReason)
{
    std::ofstream(m_directory + "/file") << "text";

    EXPECT_FALSE(TCPolicyStore(m_directory + "/file").Store("<policy/>", m_reason));

    EXPECT_EQ(m_reason, m_directory + "/file: Not a directory");
}

TEST_F(PolicyStore, ADirectoryThatTakesNoFilesIsAReason)
{
    EXPECT_FALSE(TCPolicyStore("/proc/self").Store("<policy/>", m_reason));

    EXPECT_THAT(m_reason, testing::StartsWith("/proc/self/policy.xml: "));
}

TEST_F(PolicyStore, WithoutSpaceTheOldPolicyStaysAndNothingElse)
{
    const TCPolicyStore store(m_directory);
    ASSERT_TRUE(store.Store("old", m_reason));
    std::signal(SIGXFSZ, SIG_IGN); // writing beyond the limit fails then
    rlimit before = {};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small = {1000, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);

    const bool stored = store.Store(std::string(5000, 'x'), m_reason);

    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_FALSE(stored);
    EXPECT_EQ(m_reason, m_directory + "/policy.xml: File too large");
    EXPECT_EQ(Stored(), "old");
    EXPECT_THAT(Names(), ElementsAre("policy.xml"));
}

TEST_F(PolicyStore, WhatAKilledAgentHasLeftIsReplacedAndALinkIsNotFollowed)
{
    const TCPolicyStore store(m_directory);
    std::ofstream(m_directory + "/.policy.xml.new") << "half of an old policy";
    ASSERT_TRUE(store.Store("new", m_reason));
    ASSERT_EQ(Stored(), "new");

    std::ofstream(m_directory + "/precious") << "text";
    std::filesystem::create_symlink("precious", m_directory + "/.policy.xml.new");
    ASSERT_TRUE(store.Store("newer", m_reason));

    EXPECT_EQ(Stored(), "newer");
    EXPECT_EQ(std::filesystem::file_size(m_directory + "/precious"), 4U);
    EXPECT_FALSE(std::filesystem::is_symlink(m_directory + "/policy.xml"));
}

} // namespace kel::test
