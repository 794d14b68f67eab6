#pragma once

#include <string>
#include <typeinfo>
#include <vector>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/replace.hpp>

#include "FileSystemTests.h"
#include "support/PlainWalk.h"

// The walks beside plain ones, which ask Boost for the status of every entry: whatever a tree is
// like, both report the same.

namespace kel::test {

inline constexpr char kExtension[] = ".log";

// All that a caller, or the reader of the log, can see of one call.
struct TSOutcome
{
    std::string m_result;
    std::vector<std::string> m_names;
    std::vector<std::string> m_lines; // priority and message
    std::string m_thrown;

    bool operator==(const TSOutcome& other) const
    {
        return m_result == other.m_result && m_names == other.m_names && m_lines == other.m_lines
               && m_thrown == other.m_thrown;
    }
};

inline void PrintTo(const TSOutcome& outcome, std::ostream* stream)
{
    *stream << "result " << outcome.m_result << ", names "
            << testing::PrintToString(outcome.m_names) << ", lines "
            << testing::PrintToString(outcome.m_lines) << ", thrown \"" << outcome.m_thrown << '"';
}

inline std::string ErrorLine(const std::string& message)
{
    return std::to_string(kErrorPriority) + " " + message;
}

// Runs one call; its log lines are added by whoever knows them.
template <typename Call> void Record(Call call, TSOutcome& outcome)
{
    try {
        outcome.m_result = std::to_string(call());
    } catch (const fs::filesystem_error& error) {
        // Newer Boosts have another name for the query of an entry's status.
        const std::string what = boost::algorithm::replace_first_copy(
            std::string(error.what()), "::directory_entry::refresh:", "::status:");
        outcome.m_thrown = std::string(typeid(error).name()) + " " + what + " "
                           + error.code().category().name() + " "
                           + std::to_string(error.code().value()) + " " + error.path1().string()
                           + " " + error.path2().string();
    } catch (const std::exception& error) {
        outcome.m_thrown = std::string(typeid(error).name()) + " " + error.what();
    }
}

class FileWalk : public FileSystemTest
{
protected:
    // What a walk from this start gives, once it is certain that both give it.
    TSOutcome Files(const fs::path& start, const std::string& extension = kExtension)
    {
        return m_Compare(
            start, [&] { return m_Files(PlainGetFiles, m_Tidy(start), extension); },
            [&] {
                m_log.Clear();
                TSOutcome outcome = m_Files(TSFileSystem::GetFiles, start, extension);
                outcome.m_lines = m_Lines("GetFiles");
                return outcome;
            });
    }

    TSOutcome Size(const fs::path& start)
    {
        return m_Compare(
            start,
            [&] {
                TSOutcome outcome;
                m_prepare();
                std::vector<std::string> messages;
                Record([&] { return PlainGetDirSize(m_Tidy(start), messages); }, outcome);
                for (const std::string& message : messages) {
                    outcome.m_lines.push_back(ErrorLine(message));
                }
                return outcome;
            },
            [&] {
                TSOutcome outcome;
                m_log.Clear();
                m_prepare();
                Record([&] { return TSFileSystem::GetDirSize(start); }, outcome);
                outcome.m_lines = m_Lines("GetDirSize");
                return outcome;
            });
    }

    void Both(const fs::path& start)
    {
        Files(start);
        Files(start, "");
        Size(start);
    }

    // Before every single walk.
    std::function<void()> m_prepare = [] {};

    // How often walks that differ are compared anew: where there are links beyond number. When
    // anything is mounted anywhere while the kernel follows a path, it begins anew without
    // forgetting the links that it has counted: half of its limit is then too many, by chance, for
    // either walk.
    static constexpr int kChances = 10;
    int m_chances = 0;

private:
    // Without the slashes at the end that are too many: Boost's versions differ in what they make
    // of them, and of "//" none makes the root.
    static fs::path m_Tidy(const fs::path& start)
    {
        std::string tidy = start.string();
        while (boost::algorithm::ends_with(tidy, "//")) {
            tidy.pop_back();
        }
        return tidy;
    }

    template <typename Plain, typename Ours>
    TSOutcome m_Compare(const fs::path& start, Plain runPlain, Ours runOurs)
    {
        TSOutcome plain = runPlain();
        TSOutcome ours = runOurs();
        for (int left = m_chances; !(ours == plain) && left != 0; --left) {
            plain = runPlain();
            ours = runOurs();
        }
        EXPECT_EQ(ours, plain) << start;
        return ours;
    }

    template <typename Function>
    TSOutcome m_Files(Function function, const fs::path& start, const std::string& extension)
    {
        TSOutcome outcome;
        std::vector<fs::path> files;
        m_prepare();
        Record([&] { return function(files, start, extension); }, outcome);
        for (const fs::path& file : files) {
            outcome.m_names.push_back(file.string());
        }
        return outcome;
    }

    std::vector<std::string> m_Lines(const std::string& function)
    {
        std::vector<std::string> lines;
        for (const TSLogLine& line : m_log.Lines()) {
            EXPECT_EQ(line.m_function, function);
            lines.push_back(std::to_string(line.m_priority) + " " + line.m_message);
        }
        return lines;
    }
};

} // namespace kel::test
