#pragma once

#include <map>
#include <string>
#include <vector>

namespace kel {
namespace ctl {

/// The settings of a service in systemd's unit files, as far as one can tell without systemd: what
/// a later file says adds to a list, and replaces anything else.
class TCUnit
{
public:
    /// Takes in the text of one file.
    void Add(const std::string& text);

    /// The words of one setting of the section [Service], in the order in which they stand; none
    /// when it is not set.
    std::vector<std::string> Words(const std::string& setting) const;

    /// The names of all that are set there.
    std::vector<std::string> Settings() const;

    /// Whether one that is a yes or a no is a yes.
    bool Is(const std::string& setting) const;

private:
    void m_Take(const std::string& line);

    std::string m_section;
    std::map<std::string, std::vector<std::string>> m_settings;
};

/// A unit that systemd would find.
struct TSInstalledUnit
{
    /// Looks where systemd looks.
    ///
    /// @param name  of the unit, with its suffix.
    explicit TSInstalledUnit(const std::string& name);

    std::string m_file; // empty when there is none
    bool m_isMasked = false;
    bool m_isUnreadable = false;
    bool m_isEnabled = false; // something that starts by itself brings it along
    TCUnit m_unit;            // with its drop-ins

private:
    void m_ReadDropIns(const std::string& name);
};

} // namespace ctl
} // namespace kel
