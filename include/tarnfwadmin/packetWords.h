/// Words for sets of packets, for people: the texts may change. They are not made printable.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwMeaning.h"

#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/packetGroup.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// Addresses of both families; none of either is nobody.
struct FamilyAddresses {
    FW::FWADDRESSES v4;
    FW::FWADDRESSES v6;
};

/// Every address of a family, as one interval.
FW::FWADDRESSES allAddresses();

/// Names things as profiles do: services by their names where ports are theirs, addresses as a
/// country or network that a rule has, interfaces by their adapter. Where a list of addresses is
/// shorter as what it leaves out, it is said that way: "10.0.0.0/8 except 10.3.0.0/16". Of long
/// lists the first entries are named, and the number of the others. For one thread.
class PacketWords {
public:
    /// How many entries of a list are named.
    static constexpr std::size_t kMost = 8;

    PacketWords();  ///< knows no names of profiles
    explicit PacketWords(const std::vector<Meaning>& meanings, std::size_t most = kMost);
    ~PacketWords();
    PacketWords(PacketWords&& other) noexcept;
    PacketWords& operator=(PacketWords&& other) noexcept;

    /// packetGroups(), for words: where a service has a protocol for IPv4 only, as that of AH, a
    /// group with the rest of it has that, too.
    std::vector<PacketGroup> groups(const std::vector<FW::FWPACKETSET>& sets) const;

    /// "tcp 22,6000-6010", "service nfs, udp 53", "udp from source port 53", "icmp", "everything",
    /// "everything except tcp 22".
    std::string kindsText(const std::vector<PacketKind>& kinds) const;

    /// "on eth0", "on every adapter", "on every adapter except eth1", "forwarded out through eth0",
    /// "forwarded from eth0", "on eth0 to this machine itself".
    std::string waysText(const std::vector<PacketWay>& ways) const;

    /// "eth0", "every adapter", "vpn and eth1"; "any other adapter" are those that the profiles
    /// have nothing for. Of every adapter "lo" is no exception: it is never filtered.
    std::string adaptersText(const FW::FWINTERFACES& interfaces) const;

    /// "10.0.0.0/8 except 10.3.0.0/16", "country CN (IPv4)", "everybody", "everybody (IPv6)",
    /// "nobody".
    std::string sendersText(const FamilyAddresses& senders) const;

    /// "from 10.0.0.0/8 to 10.0.0.5", "from anywhere (IPv4)".
    std::string fromText(const std::vector<PacketPeers>& peers) const;

    /// "for 10.0.0.0/8", "for everybody", "for packets to 10.0.0.5".
    std::string forText(const std::vector<PacketPeers>& peers) const;

    /// "tcp 445 on eth0 from 10.0.0.0/8 except 10.3.0.0/16".
    std::string text(const PacketGroup& group) const;

    /// As the object of "opens": "tcp 445 on eth0, for 10.0.0.0/8 except 10.3.0.0/16".
    std::string effectText(const PacketGroup& group) const;

private:
    struct Names;
    std::unique_ptr<Names> names_;
};

}  // namespace tarnfw
