// kelctl doctor: the systemd unit, and what it makes of the agent.

#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include "e2e/Findings.h"

namespace kel::test {

namespace fs = std::filesystem;

// A machine that systemd runs, as far as one can see.
class DoctorUnit : public AgentRoad
{
protected:
    DoctorUnit() { fs::create_directories(kUnits); }
    ~DoctorUnit() override { fs::remove_all("/run/systemd"); }

    static TSFound Look(const std::string& check)
    {
        return FoundIn(Kelctl({"doctor", "--json"}), check);
    }

    static void Install(const std::string& program = KEL_AGENT)
    {
        const std::string variable = "@KEL_AGENT_UNIT_PATH@";
        std::string text = ReadFile(KEL_UNIT);
        text.replace(text.find(variable), variable.size(), program);
        std::ofstream(kUnit) << text;
    }

    static void Enable()
    {
        fs::create_directory(kUnits / "multi-user.target.wants");
        fs::create_symlink("/nowhere/kel-agent.service",
                           kUnits / "multi-user.target.wants/kel-agent.service");
    }

    static void Edit(const std::string& settings)
    {
        fs::create_directory(kUnits / "kel-agent.service.d");
        std::ofstream(kUnits / "kel-agent.service.d/override.conf") << "[Service]\n"
                                                                    << settings << "\n";
    }

    static const fs::path kUnits;
    static const fs::path kUnit;
};

const fs::path DoctorUnit::kUnits = "/run/systemd/system";
const fs::path DoctorUnit::kUnit = DoctorUnit::kUnits / "kel-agent.service";

TEST_F(DoctorUnit, AUnitIsGoodWhenItIsEnabledAndAsItWasShipped)
{
    Install();
    Enable();

    EXPECT_THAT(Look("unit"), Finds("good", kUnit.string() + " is enabled, and starts " KEL_AGENT));
    EXPECT_THAT(Look("hardening"), Finds("good", "as it was shipped"));
}

TEST_F(DoctorUnit, WithoutOneNobodyStartsAnAgentAtBoot)
{
    EXPECT_THAT(Look("unit"), Finds("warning", "systemd knows no kel-agent.service"));
    fs::remove_all("/run/systemd");
    EXPECT_THAT(Look("unit"), Finds("good", "systemd does not run this machine"));
}

TEST_F(DoctorUnit, OneThatIsNotEnabledIsAWarning)
{
    Install();

    const TSFound found = Look("unit");

    EXPECT_THAT(found, Finds("warning", "is not enabled"));
    EXPECT_EQ(found.m_advice, "systemctl enable --now kel-agent");
}

TEST_F(DoctorUnit, OneThatIsMaskedIsAFault)
{
    fs::create_symlink("/dev/null", kUnit);

    EXPECT_THAT(Look("unit"), Finds("fault", "is masked"));
}

TEST_F(DoctorUnit, OneWithoutItsProgramIsAFault)
{
    Install("/nowhere/kel-agent");
    Enable();

    EXPECT_THAT(Look("unit"), Finds("fault", "/nowhere/kel-agent: No such file or directory"));
}

TEST_F(DoctorUnit, ASettingThatHidesTheRequestsIsAFault)
{
    Install();
    Enable();
    Edit("PrivateTmp=on");

    EXPECT_THAT(Look("unit"), Finds("fault", "has PrivateTmp=yes: requests are left in"));
}

TEST_F(DoctorUnit, ASettingThatIsTakenBackIsAWarning)
{
    Install();
    Enable();
    Edit("ProtectSystem=no\nCapabilityBoundingSet=CAP_SYS_ADMIN\nPrivateDevices=true");

    EXPECT_THAT(Look("hardening"),
                Finds("warning", "not as it was shipped in: CapabilityBoundingSet, ProtectSystem"));
    EXPECT_THAT(Look("unit"), Finds("good", "is enabled"));
}

TEST_F(DoctorUnit, AnAgentThatTheUnitHasNotStartedIsAWarning)
{
    Install();
    Enable();
    const auto agent = std::make_unique<ChildProcess>(std::vector<std::string>{
        "setpriv", "--no-new-privs", "--", KEL_AGENT, "--state-dir", m_stateDir});
    ASSERT_TRUE(Says(*agent, "kel-agent: ready\n"));
    EXPECT_THAT(Look("hardening"), Finds("good", "as it was shipped"));
    agent->Kill();
    ASSERT_TRUE(WaitUntil([this] { return !AgentId().has_value(); }));

    const std::unique_ptr<ChildProcess> other = StartAgent();
    ASSERT_TRUE(Says(*other, "kel-agent: ready\n"));

    EXPECT_THAT(Look("hardening"), Finds("warning", "the unit has not started it"));
}

} // namespace kel::test
