#include "tools/soak/PdMappingOracle.h"

#include <algorithm>
#include <set>
#include <sstream>

#include "platform/vorn/Name.h"
namespace OvinMirel::Reliability {

namespace {

using Vorn::words;

bool isRouterTable(Mirel::TableType t) {
    return t == Mirel::ipv4RouterAcl_ || t == Mirel::ipv6RouterAcl_;
}

bool isPortTable(Mirel::TableType t) {
    return t == Mirel::ipv4PortAcl_ || t == Mirel::ipv6PortAcl_ || t == Mirel::macAcl_;
}

const char* poolName(PdPool p) {
    return p == PdPool::paclMacl ? "hwAclIndexAllocPaclMacl" : "hwAclIndexAllocRacl";
}

std::string keyText(const PdKey& key) {
    std::ostringstream os;
    os << "{";
    const char* sep = "";
    for (const auto& [kind, acl] : key) {
        os << sep << "type " << int(kind.first) << " " << kind.second << ": " << acl;
        sep = ", ";
    }
    os << "}";
    return os.str();
}

// The key of a place from the ACLs it carries, keeping its family's table types only.
template <class Set>
PdKey keyOf(const Set& acls, const Mirel::RootConfig& root, PdPool pool) {
    PdKey key;
    for (const Ovin::AclKey& acl : acls) {  // key order: a later ACL of a kind replaces
        const Vorn::Ptr<Mirel::AclIdTypeSet> ids = root.aclKeyToAclIdTypeSet(acl);
        if (!ids)
            continue;  // not in the active root: not in effect on the chip yet
        const Mirel::TableType t = ids->tableType();
        const bool family = pool == PdPool::paclMacl ? isPortTable(t) : isRouterTable(t);
        if (family)
            key[{t, acl.direction}] = acl;
    }
    return key;
}

template <class Coll>
void addFamily(PdExpectation& out, const Coll& coll, const Mirel::RootConfig& root, PdPool pool,
               const char* family) {
    for (const auto& [id, entry] : coll) {
        const PdKey key = keyOf(entry->aclKey(), root, pool);
        if (!key.empty())
            out.groups[pool][key].push_back(PdPlace{family, words(id)});
    }
}

template <class Map>
void addActual(std::map<PdPlace, Mirel::HwAclIndex>& out, const Map& map, const char* family) {
    for (const auto& [id, index] : map)
        out.emplace(PdPlace{family, words(id)}, index);
}

}  // namespace

PdExpectation expectPdMapping(const AclPolicyStatus& policy, const Mirel::RootConfig* activeRoot) {
    PdExpectation out;
    if (!activeRoot || activeRoot->aclKeyToAclIdTypeSets() == 0)
        return out;
    addFamily(out, policy.intfAclMapping(), *activeRoot, PdPool::paclMacl, "intf");
    addFamily(out, policy.routedPortSharedAclMapping(), *activeRoot, PdPool::racl, "routed port");
    addFamily(out, policy.vlanAclMapping(), *activeRoot, PdPool::racl, "vlan");
    addFamily(out, policy.subIntfAclMapping(), *activeRoot, PdPool::racl, "subintf");
    return out;
}

std::vector<std::string> comparePdMapping(Mirel::ChipId chip, const PdExpectation& expected,
                                          const Mirel::RootConfig* activeRoot,
                                          const Mirel::ChipHwCapability& capability,
                                          const Mirel::ChipDataFlowConfig& tables) {
    std::vector<std::string> out;
    const std::string who = words("Chip-", chip, " ");
    std::map<PdPool, std::map<PdPlace, Mirel::HwAclIndex>> actual;
    addActual(actual[PdPool::paclMacl], tables.intfToHwAclIndex(), "intf");
    addActual(actual[PdPool::racl], tables.routedPortToHwAclIndex(), "routed port");
    addActual(actual[PdPool::racl], tables.vlanToHwAclIndex(), "vlan");
    addActual(actual[PdPool::racl], tables.subIntfToHwAclIndex(), "subintf");

    const uint32_t max = capability.hwAclIndexMax();
    const uint32_t reserved = capability.hwAclIndexReserved();
    const uint64_t numbers = uint64_t(max) + 1 - (reserved <= max ? 1 : 0);

    std::map<Mirel::ChipRuleListIdKey, Mirel::AclId> want2nd;
    for (const PdPool pool : {PdPool::paclMacl, PdPool::racl}) {
        std::map<PdPlace, Mirel::HwAclIndex>& have = actual[pool];
        const auto groupsIt = expected.groups.find(pool);
        const std::map<PdKey, std::vector<PdPlace>> none;
        const auto& groups = groupsIt == expected.groups.end() ? none : groupsIt->second;
        std::map<Mirel::HwAclIndex, const PdKey*> owner;
        uint64_t mapped = 0;
        for (const auto& [key, places] : groups) {
            std::set<Mirel::HwAclIndex> indexes;
            std::vector<std::string> unmapped;
            for (const PdPlace& p : places) {
                auto it = have.find(p);
                if (it == have.end()) {
                    unmapped.push_back(p.family + " " + p.id);
                    continue;
                }
                indexes.insert(it->second);
                have.erase(it);
            }
            if (indexes.empty())
                continue;  // the whole key waits for a number
            ++mapped;
            if (!unmapped.empty()) {
                out.push_back(who + unmapped.front() + " has no index while other places of " +
                              keyText(key) + " have one");
            }
            if (indexes.size() > 1) {
                out.push_back(words(who, "places of ", keyText(key), " use ", indexes.size(),
                                    " indexes instead of sharing one"));
            }
            const Mirel::HwAclIndex index = *indexes.begin();
            if (index.value() > max || index.value() == reserved) {
                out.push_back(words(who, "index ", index, " of ", poolName(pool),
                                    " is outside the numbers it may hand out"));
            }
            if (auto [it, fresh] = owner.emplace(index, &key); !fresh) {
                out.push_back(words(who, "index ", index, " of ", poolName(pool),
                                    " serves two ACL sets: ", keyText(*it->second), " and ",
                                    keyText(key)));
            }
            for (const auto& [kind, acl] : key) {
                const Vorn::Ptr<Mirel::AclIdTypeSet> ids = activeRoot->aclKeyToAclIdTypeSet(acl);
                for (const auto& [protocol, aclId] : ids->aclIdType())
                    want2nd[Mirel::ChipRuleListIdKey(index, kind.first, protocol, kind.second)] =
                        aclId;
            }
        }
        for (const auto& [place, index] : have) {
            out.push_back(words(who, place.family, " ", place.id, " is mapped to index ", index,
                                " but carries no ACL of its kinds in the active root"));
        }
        const uint64_t keys = groups.size();
        if (mapped != std::min<uint64_t>(keys, numbers)) {
            out.push_back(words(who, poolName(pool), " maps ", mapped, " of ", keys,
                                " ACL sets with ", numbers, " numbers"));
        }
    }

    // The 2nd level, entry by entry; a few differences say enough.
    size_t reported = 0;
    auto report = [&](std::string line) {
        if (reported++ < 4)
            out.push_back(who + line);
    };
    for (const auto& [key, aclId] : want2nd) {
        const Mirel::AclId* have = tables.chipRuleListKeyToId(key);
        if (!have)
            report(words("lacks 2nd-level entry ", key, " -> ", aclId));
        else if (!(*have == aclId))
            report(words("2nd-level entry ", key, " is ", *have, " instead of ", aclId));
    }
    for (const auto& [key, aclId] : tables.chipRuleListKeyToId()) {
        if (!want2nd.contains(key))
            report(
                words("has 2nd-level entry ", key, " -> ", aclId, " that no mapped place needs"));
    }
    return out;
}

}  // namespace OvinMirel::Reliability
