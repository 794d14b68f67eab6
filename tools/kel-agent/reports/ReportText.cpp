#include "reports/ReportText.h"

#include <nlohmann/json.hpp>

#include <kel/KELCachingUtils.h>
#include <kel/KELDirsManager.h>

#include "common/Text.h"

namespace kel {
namespace agent {

using tools::IsoTime;

namespace {

using TJson = nlohmann::ordered_json;

constexpr int kIndent = 2;

template <typename Value> TJson OrNull(const std::optional<Value>& value)
{
    return value ? TJson(*value) : TJson();
}

TJson DescribeRequest(const TSRequest& request)
{
    TJson text;
    text["source"] = request.m_source;
    text["name"] = request.m_name;
    text["process"] = request.m_process;
    text["thread"] = request.m_thread;
    text["mode"] = OrNull(request.m_mode);
    text["reboot"] = OrNull(request.m_reboot);
    text["cut"] = request.m_cut;
    text["upload-path"] = OrNull(request.m_uploadPath);
    text["user"] = OrNull(request.m_user);
    text["filed"] = IsoTime(request.m_filed);
    text["stamp"] = request.m_stamp;
    return text;
}

TJson DescribeArtefact(const TSReport& report)
{
    if (report.m_artefactSize) {
        return {{"file", kArtefactFile}, {"bytes", *report.m_artefactSize}};
    }
    if (!report.m_noArtefact.empty()) {
        return {{"reason", report.m_noArtefact}};
    }
    return TJson();
}

TJson DescribeApplications(const std::optional<TAnswers>& answers)
{
    if (!answers) {
        return {{"handled", TJson()}, {"failed", TJson()}, {"late", true}};
    }
    return {{"handled", answers->first}, {"failed", answers->second}};
}

TJson DescribeKernelLog(const TSKernelLog& log)
{
    constexpr const char* kStates[] = {"complete", "late", "unavailable"};
    TJson text;
    text["file"] = log.m_lines > 0 ? TJson(kKernelLogFile) : TJson();
    text["lines"] = log.m_lines;
    text["state"] = kStates[static_cast<size_t>(log.m_state)];
    if (!log.m_reason.empty()) {
        text["reason"] = log.m_reason;
    }
    text["gap"] = log.m_gap;
    return text;
}

// A USB stick's policy is told by the device mode alone: the path is that of the device's own.
TJson DescribePolicy()
{
    TJson text;
    text["path"] = TCDirsManager::GetPolicyXmlPath();
    text["policy-mode"] = TCDirsManager::GetPolicyMode();
    text["device-mode"] = TCDirsManager::GetKELMode();
    return text;
}

TJson DescribeSystem()
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
    TJson description = TJson::object();
    for (const auto& [name, key] : texts) {
        std::string value;
        if (TCHtCachingUtils::GetSystemInfoKeyCached(key, value)) {
            description[name] = value;
        }
    }
    for (const auto& [name, key] : numbers) {
        int value = 0;
        if (TCHtCachingUtils::GetSystemInfoKeyCached(key, value)) {
            description[name] = value;
        }
    }
    return description;
}

} // namespace

std::string Describe(const TSReport& report)
{
    TJson text;
    text["id"] = report.m_id;
    text["time"] = IsoTime(report.m_time);
    text["request"] = DescribeRequest(report.m_request);
    text["artefact"] = DescribeArtefact(report);
    text["applications"] = DescribeApplications(report.m_applications);
    text["kernel-log"] = DescribeKernelLog(report.m_kernelLog);
    text["policy"] = DescribePolicy();
    text["system"] = DescribeSystem();
    return text.dump(kIndent, ' ', false, TJson::error_handler_t::replace) + "\n";
}

TSOrigin OriginIn(const std::string& text)
{
    const TJson report = TJson::parse(text, nullptr, false);
    const auto request = report.is_object() ? report.find("request") : report.end();
    TSOrigin origin;
    if (request == report.end() || !request->is_object()) {
        return origin;
    }
    const auto stamp = request->find("stamp");
    if (stamp != request->end() && stamp->is_string()) {
        origin.m_stamp = stamp->get<std::string>();
    }
    const auto user = request->find("user");
    if (user != request->end() && user->is_number_unsigned() && *user <= UINT32_MAX) {
        origin.m_user = user->get<uid_t>();
    }
    return origin;
}

} // namespace agent
} // namespace kel
