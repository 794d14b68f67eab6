#include "Options.h"

#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace kel {
namespace agent {

namespace {

constexpr unsigned long long kMostReports = 1U << 30;
constexpr unsigned long long kLeastBytes = 64U
                                           << 10; // a report needs some room besides its artefact
constexpr unsigned long long kMostBytes = UINT32_MAX; // the library tells sizes modulo 4 GiB

enum EOption { Help = 256, Version, StateDirectory, MaxReports, MaxBytes, Test };

constexpr option kOptions[] = {
    {"help", no_argument, nullptr, Help},
    {"version", no_argument, nullptr, Version},
    {"state-dir", required_argument, nullptr, StateDirectory},
    {"max-reports", required_argument, nullptr, MaxReports},
    {"max-bytes", required_argument, nullptr, MaxBytes},
    {"test", no_argument, nullptr, Test},
    {},
};

constexpr char kHelp[]
    = "Reference agent: takes the reporting policy that applications set, and collects the reports "
      "that they ask for.\n"
      "Usage: kel-agent [OPTIONS]\n"
      "\n"
      "Options:\n"
      "  -h,--help                   Print this help message and exit\n"
      "  --version                   Print the version\n"
      "  --state-dir DIR=%s\n"
      "                              The directory that keeps policy and reports\n"
      "  --max-reports N=%-11zu Drop the oldest reports beyond so many\n"
      "  --max-bytes N=%-13llu Drop the oldest reports beyond so many bytes\n"
      "  --test                      Serve the test channel\n";

template <typename Number>
bool ReadNumber(const char* name, const char* text, unsigned long long least,
                unsigned long long most, Number& number)
{
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 0);
    // It would take a blank and a minus sign.
    if (*text < '0' || *text > '9' || *end != '\0' || errno != 0 || value < least || value > most) {
        std::fprintf(stderr, "kel-agent: %s: %s is no number from %llu to %llu\n", name, text,
                     least, most);
        return false;
    }
    number = static_cast<Number>(value);
    return true;
}

} // namespace

TSOptions::ENext TSOptions::Read(int argc, char** argv)
{
    const TSOptions defaults = *this;
    opterr = 0; // in our own words
    for (int option; (option = getopt_long(argc, argv, ":h", kOptions, nullptr)) != -1;) {
        switch (option) {
        case 'h':
        case Help:
            std::printf(kHelp, defaults.m_stateDirectory.c_str(), defaults.m_limits.m_reports,
                        static_cast<unsigned long long>(defaults.m_limits.m_bytes));
            return ENext::End;
        case Version:
            std::puts("kel-agent " KEL_VERSION);
            return ENext::End;
        case ':':
            std::fprintf(stderr, "kel-agent: %s needs a value\n", argv[optind - 1]);
            return ENext::WrongUsage;
        case '?':
            if (optopt > 0 && optopt < Help) {
                std::fprintf(stderr, "kel-agent: -%c is no option\n", optopt);
            } else {
                std::fprintf(stderr, "kel-agent: %s is no option\n", argv[optind - 1]);
            }
            return ENext::WrongUsage;
        default:
            if (!m_ReadOption(option, optarg)) {
                return ENext::WrongUsage;
            }
        }
    }
    if (optind < argc) {
        std::fprintf(stderr, "kel-agent: %s is no option\n", argv[optind]);
        return ENext::WrongUsage;
    }
    return ENext::Serve;
}

bool TSOptions::m_ReadOption(int option, const char* value)
{
    switch (option) {
    case StateDirectory:
        m_stateDirectory = value;
        m_isOwnDirectory = false;
        return true;
    case MaxReports:
        return ReadNumber("--max-reports", value, 1, kMostReports, m_limits.m_reports);
    case MaxBytes:
        return ReadNumber("--max-bytes", value, kLeastBytes, kMostBytes, m_limits.m_bytes);
    default:
        m_test = true;
        return true;
    }
}

} // namespace agent
} // namespace kel
