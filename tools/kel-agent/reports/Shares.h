#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>

namespace kel {
namespace agent {

/// Whom a report is of: the user who asked for it. All whom the agent cannot tell are as one.
typedef std::optional<uid_t> TOwner;

/// Who holds how much of the room for reports, and whose report gives way to a new one: the oldest
/// of the user who holds most. Nobody loses one to another while the other holds more.
class TCShares
{
public:
    struct TSLimits
    {
        size_t m_reports = 4096;
        uint64_t m_bytes = 256U << 20;
    };

    /// A report that is about to be added.
    struct TSNew
    {
        TOwner m_owner;
        uint64_t m_bytes;
    };

    explicit TCShares(const TSLimits& limits) : m_limits(limits) {}

    const TSLimits& Limits() const { return m_limits; }

    /// The higher its number, the newer is a report.
    void Add(uint64_t id, const TOwner& owner, uint64_t bytes);
    void Remove(uint64_t id);

    /// Of all reports; 0 when there is none.
    uint64_t NewestId() const;
    bool Has(uint64_t id) const { return m_owners.count(id) != 0; }
    std::set<uint64_t> Ids() const;

    bool AreTooMany(const std::optional<TSNew>& added) const;

    /// How many bytes a new report can have at the expense of nobody who holds less.
    uint64_t RoomFor(const TOwner& owner) const;

    /// The report that gives way next; none when all fit, along with a new one or as they are.
    /// A new one that has to fit in any case does: when its owner holds most, and has no older one
    /// to give, it is at the expense of another.
    std::optional<uint64_t> NextToGo(const std::optional<TSNew>& added) const;

private:
    struct TSHolding
    {
        std::map<uint64_t, uint64_t> m_reports; // their bytes
        uint64_t m_bytes = 0;
    };

    const TSLimits m_limits;
    std::map<TOwner, TSHolding> m_holdings; // of those who hold any
    std::map<uint64_t, TOwner> m_owners;
    uint64_t m_bytes = 0;
};

} // namespace agent
} // namespace kel
