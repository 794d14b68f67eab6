#include "reports/ReportText.h"

#include <kel/KELCachingUtils.h>
#include <kel/KELDirsManager.h>

#include <nlohmann/json.hpp>

#include "common/Text.h"
#include "reports/Json.h"

namespace kel {
namespace agent {

using tools::IsoTime;

namespace {

// Hears what a report holds, and notes what its request was. A whole document of it would take the
// agent as much code again.
class TCOriginReader : public nlohmann::json_sax<nlohmann::json>
{
public:
    explicit TCOriginReader(TSOrigin& origin) : m_origin(origin) {}

    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_float(number_float_t, const string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_array(size_t) override { return m_Enter(); }
    bool end_array() override { return m_Leave(); }
    bool start_object(size_t) override { return m_Enter(); }
    bool end_object() override { return m_Leave(); }

    bool key(string_t& name) override
    {
        m_name = name;
        if (m_depth == 1) {
            m_isRequest = name == "request";
        }
        return true;
    }

    bool number_unsigned(number_unsigned_t number) override
    {
        if (m_IsOf("user") && number <= UINT32_MAX) {
            m_origin.m_user = static_cast<uid_t>(number);
        }
        return true;
    }

    bool string(string_t& text) override
    {
        if (m_IsOf("stamp")) {
            m_origin.m_stamp = text;
        }
        return true;
    }

    bool parse_error(size_t, const std::string&, const nlohmann::detail::exception&) override
    {
        m_origin = TSOrigin();
        return false;
    }

private:
    bool m_IsOf(const char* name) const { return m_isRequest && m_depth == 2 && m_name == name; }
    bool m_Enter()
    {
        ++m_depth;
        return true;
    }
    bool m_Leave()
    {
        --m_depth;
        return true;
    }

    TSOrigin& m_origin;
    size_t m_depth = 0;
    bool m_isRequest = false; // within the outermost object's member of this name
    std::string m_name;
};

void DescribeRequest(const TSRequest& request, TCJsonWriter& text)
{
    text.Begin("request");
    text.Add("source", request.m_source);
    text.Add("name", request.m_name);
    text.Add("process", request.m_process);
    text.Add("thread", request.m_thread);
    text.Add("mode", request.m_mode);
    text.Add("reboot", request.m_reboot);
    text.Add("cut", request.m_cut);
    text.Add("upload-path", request.m_uploadPath);
    text.Add("user", request.m_user);
    text.Add("filed", IsoTime(request.m_filed));
    text.Add("stamp", request.m_stamp);
    text.End();
}

void DescribeArtefact(const TSReport& report, TCJsonWriter& text)
{
    if (!report.m_artefactSize && report.m_noArtefact.empty()) {
        text.Add("artefact", nullptr);
        return;
    }
    text.Begin("artefact");
    if (report.m_artefactSize) {
        text.Add("file", kArtefactFile);
        text.Add("bytes", *report.m_artefactSize);
    } else {
        text.Add("reason", report.m_noArtefact);
    }
    text.End();
}

void DescribeApplications(const std::optional<TAnswers>& answers, TCJsonWriter& text)
{
    text.Begin("applications");
    if (answers) {
        text.Add("handled", answers->first);
        text.Add("failed", answers->second);
    } else {
        text.Add("handled", nullptr);
        text.Add("failed", nullptr);
        text.Add("late", true);
    }
    text.End();
}

void DescribeKernelLog(const TSKernelLog& log, TCJsonWriter& text)
{
    constexpr const char* kStates[] = {"complete", "late", "unavailable"};
    text.Begin("kernel-log");
    if (log.m_lines > 0) {
        text.Add("file", kKernelLogFile);
    } else {
        text.Add("file", nullptr);
    }
    text.Add("lines", log.m_lines);
    text.Add("state", kStates[static_cast<size_t>(log.m_state)]);
    if (!log.m_reason.empty()) {
        text.Add("reason", log.m_reason);
    }
    text.Add("gap", log.m_gap);
    text.End();
}

// A USB stick's policy is told by the device mode alone: the path is that of the device's own.
void DescribePolicy(TCJsonWriter& text)
{
    text.Begin("policy");
    text.Add("path", TCDirsManager::GetPolicyXmlPath());
    text.Add("policy-mode", TCDirsManager::GetPolicyMode());
    text.Add("device-mode", TCDirsManager::GetKELMode());
    text.End();
}

void DescribeSystem(TCJsonWriter& text)
{
    constexpr std::pair<const char*, system_info_key_e> texts[] = {
        {"model", SYSTEM_INFO_KEY_MODEL},
        {"platform-name", SYSTEM_INFO_KEY_PLATFORM_NAME},
        {"platform-version", SYSTEM_INFO_KEY_PLATFORM_VERSION},
        {"build", SYSTEM_INFO_KEY_BUILD_STRING},
        {"kernel", SYSTEM_INFO_KEY_KERNEL_NAME},
        {"kernel-release", SYSTEM_INFO_KEY_KERNEL_RELEASE},
        {"machine", SYSTEM_INFO_KEY_MACHINE},
    };
    constexpr std::pair<const char*, system_info_key_e> numbers[] = {
        {"cores", SYSTEM_INFO_KEY_CORES},
        {"memory-mib", SYSTEM_INFO_KEY_MEMORY_MIB},
        {"page-size", SYSTEM_INFO_KEY_PAGE_SIZE},
    };
    text.Begin("system");
    for (const auto& [name, key] : texts) {
        std::string value;
        if (TCHtCachingUtils::GetSystemInfoKeyCached(key, value)) {
            text.Add(name, value);
        }
    }
    for (const auto& [name, key] : numbers) {
        int value = 0;
        if (TCHtCachingUtils::GetSystemInfoKeyCached(key, value)) {
            text.Add(name, value);
        }
    }
    text.End();
}

} // namespace

std::string Describe(const TSReport& report)
{
    TCJsonWriter text;
    text.Add("id", report.m_id);
    text.Add("time", IsoTime(report.m_time));
    DescribeRequest(report.m_request, text);
    DescribeArtefact(report, text);
    DescribeApplications(report.m_applications, text);
    DescribeKernelLog(report.m_kernelLog, text);
    DescribePolicy(text);
    DescribeSystem(text);
    text.End();
    return text.Text() + "\n";
}

TSOrigin OriginIn(const std::string& text)
{
    TSOrigin origin;
    TCOriginReader reader(origin);
    nlohmann::json::sax_parse(text, &reader);
    return origin;
}

} // namespace agent
} // namespace kel
