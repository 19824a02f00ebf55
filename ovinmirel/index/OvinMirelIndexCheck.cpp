#include "ovinmirel/index/OvinMirelIndexCheck.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <sstream>

#include "ovinmirel/index/OvinMirelIntfAclTypeIndexSm.h"

namespace OvinMirel {

namespace {

using Zamu::IntfId;

bool isPhy(const IntfId& i) {
    return Zamu::EthIntfId::isEthIntfId(i);
}
bool isSub(const IntfId& i) {
    return Zamu::SubIntfId::isSubIntfId(i);
}
bool isVlanIntf(const IntfId& i) {
    return Zamu::VlanIntfId::isVlanIntfId(i);
}

}  // namespace

// Each rule walks the collections it concerns once and looks everything else up by key, so a
// consistent Index costs a few linear passes and one interface-to-chip map. The first rule
// that finds a violation ends the walk.
//
// A value entity is built by its collection from the key it is filed under and keeps that key
// const, so a value carrying another key cannot arise and is not checked.
//
// Outside the anonymous namespace: ChipIntfMapping names it a friend, to read its mirror link.
class IndexChecker {
  public:
    explicit IndexChecker(const Index& ix) : ix_(ix) {}

    std::optional<std::string> run() {
        using Rule = void (IndexChecker::*)();
        static constexpr Rule kRules[] = {
            &IndexChecker::noEmptyEntries,
            &IndexChecker::entriesMatchTheirKeys,
            &IndexChecker::physicalOnly,
            &IndexChecker::chipMappingsMirror,
            &IndexChecker::intfAclFollowsAclPhyIntf,
            &IndexChecker::chipMappingsFollowIntfAndChip,
            &IndexChecker::subIntfMappingsMirror,
            &IndexChecker::chipVlanFollowsMembership,
            &IndexChecker::chipSubIntfFollowsCarriers,
            &IndexChecker::parentsFollowBindings,
            &IndexChecker::tableTypesFollowIntfAcl,
        };
        for (Rule rule : kRules) {
            (this->*rule)();
            if (failure_)
                break;
        }
        return failure_;
    }

  private:
    template <class... T>
    void fail(const T&... parts) {
        if (failure_)
            return;
        std::ostringstream os;
        (os << ... << parts);
        failure_ = os.str();
    }

    // Invariant 1: the writer that removes the last member removes the entry.
    void noEmptyEntries() {
        for (const auto& [i, e] : ix_.intfAclMapping())
            if (e->aclKeys() == 0)
                fail("intfAclMapping[", i, "] is empty");
        for (const auto& [a, e] : ix_.aclPhyIntfMapping()) {
            if (e->phyIntfMappings() == 0)
                fail("aclPhyIntfMapping[", a, "] is empty");
            for (const auto& [p, m] : e->phyIntfMapping())
                if (m->parentIntfIds() == 0)
                    fail("aclPhyIntfMapping[", a, "].phyIntfMapping[", p, "] is empty");
        }
        for (const auto& [a, e] : ix_.aclChipMapping()) {
            if (e->chipIntfMappings() == 0)
                fail("aclChipMapping[", a, "] is empty");
            for (const auto& [c, m] : e->chipIntfMapping())
                if (m->intfIds() == 0)
                    fail("aclChipMapping[", a, "].chipIntfMapping[", c, "] is empty");
        }
        for (const auto& [c, e] : ix_.chipAclMapping()) {
            if (e->aclIntfMappings() == 0)
                fail("chipAclMapping[", c, "] is empty");
            for (const auto& [a, m] : e->aclIntfMapping())
                if (m->intfIds() == 0)
                    fail("chipAclMapping[", c, "].aclIntfMapping[", a, "] is empty");
        }
        for (const auto& [c, e] : ix_.chipIntfMapping())
            if (e->intfIds() == 0)
                fail("chipIntfMapping[", c, "] is empty");
        for (const auto& [c, e] : ix_.chipVlanMapping()) {
            if (e->vlanPhyIntfColls() == 0)
                fail("chipVlanMapping[", c, "] is empty");
            for (const auto& [v, m] : e->vlanPhyIntfColl())
                if (m->phyIntfIds() == 0)
                    fail("chipVlanMapping[", c, "].vlanPhyIntfColl[", v, "] is empty");
        }
        for (const auto& [c, e] : ix_.chipSubIntfMapping()) {
            if (e->subPhyIntfColls() == 0)
                fail("chipSubIntfMapping[", c, "] is empty");
            for (const auto& [s, m] : e->subPhyIntfColl())
                if (m->phyIntfIds() == 0)
                    fail("chipSubIntfMapping[", c, "].subPhyIntfColl[", s, "] is empty");
        }
        for (const auto& [p, e] : ix_.phyIntfVlanMapping())
            if (e->vlanIds() == 0)
                fail("phyIntfVlanMapping[", p, "] is empty");
        for (const auto& [p, e] : ix_.phySubIntfMapping())
            if (e->subIntfIds() == 0)
                fail("phySubIntfMapping[", p, "] is empty");
        for (const auto& [s, e] : ix_.subPhyIntfMapping())
            if (e->phyIntfIds() == 0)
                fail("subPhyIntfMapping[", s, "] is empty");
        for (const auto& [l, e] : ix_.lagSubIntfMapping())
            if (e->subIntfIds() == 0)
                fail("lagSubIntfMapping[", l, "] is empty");
        for (const auto& [s, e] : ix_.subIntfAclMapping())
            if (e->aclKeys() == 0)
                fail("subIntfAclMapping[", s, "] is empty");
        for (const auto& [v, e] : ix_.vlanAclMapping())
            if (e->aclKeys() == 0)
                fail("vlanAclMapping[", v, "] is empty");
        for (const auto& [i, e] : ix_.intfAclTypeMapping()) {
            if (e->aclTableTypeMappings() == 0)
                fail("intfAclTypeMapping[", i, "] is empty");
            for (const auto& [t, m] : e->aclTableTypeMapping())
                if (m->aclKeys() == 0)
                    fail("intfAclTypeMapping[", i, "].aclTableTypeMapping[", t, "] is empty");
        }
    }

    // The two entries that carry a second identity besides their key.
    void entriesMatchTheirKeys() {
        for (const auto& [v, e] : ix_.vlanAclMapping()) {
            if (!isVlanIntf(e->vlanIntfId()) || e->vlanIntfId().first() != v.value())
                fail("vlanAclMapping[", v, "] carries the VLAN interface ", e->vlanIntfId());
        }
        for (const auto& [l, e] : ix_.lagSubIntfMapping()) {
            if (!Zamu::PortChannelIntfId::isPortChannelIntfId(l))
                fail("lagSubIntfMapping keys ", l, ", not a LAG");
            for (const IntfId& s : e->subIntfId()) {
                if (!Zamu::SubIntfId::isPortChannelSubIntfId(s) || s.parent() != l)
                    fail("lagSubIntfMapping[", l, "] holds ", s, ", not one of its sub-interfaces");
            }
        }
    }

    // Invariant 7: each id is of the kind its place admits.
    void physicalOnly() {
        auto phyKey = [&](const IntfId& i, const char* where) {
            if (!isPhy(i))
                fail(where, " keys ", i, ", not a physical interface");
        };
        auto subKey = [&](const IntfId& i, const char* where) {
            if (!isSub(i))
                fail(where, " keys ", i, ", not a sub-interface");
        };
        // `where` is streamed as given: the path to the set.
        auto phyMembers = [&](const auto& set, const auto&... where) {
            for (const IntfId& i : set) {
                if (!isPhy(i))
                    fail(where..., " holds ", i, ", not a physical interface");
            }
        };
        for (const auto& [i, e] : ix_.intfAclMapping())
            phyKey(i, "intfAclMapping");
        for (const auto& [i, e] : ix_.phyIntfVlanMapping())
            phyKey(i, "phyIntfVlanMapping");
        for (const auto& [i, e] : ix_.phySubIntfMapping()) {
            phyKey(i, "phySubIntfMapping");
            for (const IntfId& s : e->subIntfId())
                if (!isSub(s))
                    fail("phySubIntfMapping[", i, "] holds ", s, ", not a sub-interface");
        }
        for (const auto& [i, e] : ix_.intfAclTypeMapping())
            phyKey(i, "intfAclTypeMapping");
        for (const auto& [a, e] : ix_.aclPhyIntfMapping()) {
            for (const auto& [p, m] : e->phyIntfMapping()) {
                if (!isPhy(p))
                    fail("aclPhyIntfMapping[", a, "].phyIntfMapping keys ", p,
                         ", not a physical interface");
                for (const IntfId& parent : m->parentIntfId()) {
                    if (!isPhy(parent) && !isSub(parent) && !isVlanIntf(parent))
                        fail("aclPhyIntfMapping[", a, "].phyIntfMapping[", p, "] has the parent ",
                             parent, ", not a port, sub-interface or VLAN interface");
                }
            }
        }
        for (const auto& [a, e] : ix_.aclChipMapping())
            for (const auto& [c, m] : e->chipIntfMapping())
                phyMembers(m->intfId(), "aclChipMapping[", a, "].chipIntfMapping[", c, "]");
        for (const auto& [c, e] : ix_.chipAclMapping())
            for (const auto& [a, m] : e->aclIntfMapping())
                phyMembers(m->intfId(), "chipAclMapping[", c, "].aclIntfMapping[", a, "]");
        for (const auto& [c, e] : ix_.chipIntfMapping())
            phyMembers(e->intfId(), "chipIntfMapping[", c, "]");
        for (const auto& [c, e] : ix_.chipVlanMapping())
            for (const auto& [v, m] : e->vlanPhyIntfColl())
                phyMembers(m->phyIntfId(), "chipVlanMapping[", c, "].vlanPhyIntfColl[", v, "]");
        for (const auto& [c, e] : ix_.chipSubIntfMapping()) {
            for (const auto& [s, m] : e->subPhyIntfColl()) {
                if (!isSub(s))
                    fail("chipSubIntfMapping[", c, "].subPhyIntfColl keys ", s,
                         ", not a sub-interface");
                phyMembers(m->phyIntfId(), "chipSubIntfMapping[", c, "].subPhyIntfColl[", s, "]");
            }
        }
        for (const auto& [s, e] : ix_.subPhyIntfMapping()) {
            subKey(s, "subPhyIntfMapping");
            phyMembers(e->phyIntfId(), "subPhyIntfMapping[", s, "]");
        }
        for (const auto& [s, e] : ix_.subIntfAclMapping())
            subKey(s, "subIntfAclMapping");
    }

    // Invariant 2, both ways, member by member; and the ACL's entry for a chip, when linked,
    // links to the chip's entry for the ACL filed now (not one deleted, nor another's).
    void chipMappingsMirror() {
        for (const auto& [a, e] : ix_.aclChipMapping()) {
            for (const auto& [c, m] : e->chipIntfMapping()) {
                auto chip = ix_.chipAclMapping(c);
                auto rev = chip ? chip->aclIntfMapping(a) : nullptr;
                if (m->mirror_ && m->mirror_ != rev)
                    fail("aclChipMapping[", a, "].chipIntfMapping[", c,
                         "] links to another entry than chipAclMapping[", c, "].aclIntfMapping[", a,
                         "]");
                for (const IntfId& i : m->intfId()) {
                    if (!rev || !rev->intfId(i))
                        fail("aclChipMapping has (", a, ", ", i, ", chip ", c,
                             ") but chipAclMapping has not");
                }
            }
        }
        for (const auto& [c, e] : ix_.chipAclMapping()) {
            for (const auto& [a, m] : e->aclIntfMapping()) {
                auto acl = ix_.aclChipMapping(a);
                auto rev = acl ? acl->chipIntfMapping(c) : nullptr;
                for (const IntfId& i : m->intfId()) {
                    if (!rev || !rev->intfId(i))
                        fail("chipAclMapping has (", a, ", ", i, ", chip ", c,
                             ") but aclChipMapping has not");
                }
            }
        }
    }

    // Invariant 4, both ways.
    void intfAclFollowsAclPhyIntf() {
        for (const auto& [i, e] : ix_.intfAclMapping()) {
            for (const Ovin::AclKey& a : e->aclKey()) {
                auto m = ix_.aclPhyIntfMapping(a);
                if (!m || !m->phyIntfMapping(i))
                    fail("intfAclMapping[", i, "] holds ", a, " but aclPhyIntfMapping[", a,
                         "] lacks ", i);
            }
        }
        for (const auto& [a, e] : ix_.aclPhyIntfMapping()) {
            for (const auto& [p, m] : e->phyIntfMapping()) {
                auto intfAcl = ix_.intfAclMapping(p);
                if (!intfAcl || !intfAcl->aclKey(a))
                    fail("aclPhyIntfMapping[", a, "] has ", p, " but intfAclMapping[", p,
                         "] lacks ", a);
            }
        }
    }

    // Invariant 3, both ways; and each physical interface sits on at most one chip.
    void chipMappingsFollowIntfAndChip() {
        for (const auto& [c, e] : ix_.chipIntfMapping()) {
            for (const IntfId& i : e->intfId()) {
                auto [it, fresh] = chipOf_.emplace(i, c);
                if (!fresh)
                    fail(i, " is on chip ", std::min(it->second, c), " and on chip ",
                         std::max(it->second, c));
            }
        }
        for (const auto& [a, e] : ix_.aclChipMapping()) {
            for (const auto& [c, m] : e->chipIntfMapping()) {
                for (const IntfId& i : m->intfId()) {
                    auto intfAcl = ix_.intfAclMapping(i);
                    if (!intfAcl || !intfAcl->aclKey(a))
                        fail("(", a, ", ", i, ", chip ", c, ") is mapped but ", a,
                             " does not reach ", i);
                    auto it = chipOf_.find(i);
                    if (it == chipOf_.end() || it->second != c)
                        fail("(", a, ", ", i, ", chip ", c, ") is mapped but ", i,
                             " is not on chip ", c);
                }
            }
        }
        for (const auto& [i, e] : ix_.intfAclMapping()) {
            auto it = chipOf_.find(i);
            if (it == chipOf_.end())
                continue;
            auto acls = ix_.chipAclMapping(it->second);
            for (const Ovin::AclKey& a : e->aclKey()) {
                auto m = acls ? acls->aclIntfMapping(a) : nullptr;
                if (!m || !m->intfId(i))
                    fail(a, " reaches ", i, " on chip ", it->second,
                         " but the chip mappings lack it");
            }
        }
    }

    // Invariant 5, both ways.
    void subIntfMappingsMirror() {
        for (const auto& [p, e] : ix_.phySubIntfMapping()) {
            for (const IntfId& s : e->subIntfId()) {
                auto rev = ix_.subPhyIntfMapping(s);
                if (!rev || !rev->phyIntfId(p))
                    fail("phySubIntfMapping[", p, "] holds ", s, " but subPhyIntfMapping[", s,
                         "] lacks ", p);
            }
        }
        for (const auto& [s, e] : ix_.subPhyIntfMapping()) {
            for (const IntfId& p : e->phyIntfId()) {
                auto rev = ix_.phySubIntfMapping(p);
                if (!rev || !rev->subIntfId(s))
                    fail("subPhyIntfMapping[", s, "] holds ", p, " but phySubIntfMapping[", p,
                         "] lacks ", s);
            }
        }
    }

    bool onChip(const IntfId& p, Mirel::ChipId c) const {
        auto intfs = ix_.chipIntfMapping(c);
        return intfs && intfs->intfId(p);
    }

    // Invariant 6 for VLANs, both ways.
    void chipVlanFollowsMembership() {
        for (const auto& [c, e] : ix_.chipVlanMapping()) {
            for (const auto& [v, m] : e->vlanPhyIntfColl()) {
                for (const IntfId& p : m->phyIntfId()) {
                    auto vlans = ix_.phyIntfVlanMapping(p);
                    if (!onChip(p, c) || !vlans || !vlans->vlanId(v))
                        fail("chipVlanMapping[", c, "] has ", p, " in vlan ", v, " without cause");
                }
            }
        }
        for (const auto& [c, e] : ix_.chipIntfMapping()) {
            auto chip = ix_.chipVlanMapping(c);
            for (const IntfId& p : e->intfId()) {
                auto vlans = ix_.phyIntfVlanMapping(p);
                if (!vlans)
                    continue;
                for (const Bridging::VlanId& v : vlans->vlanId()) {
                    auto members = chip ? chip->vlanPhyIntfColl(v) : nullptr;
                    if (!members || !members->phyIntfId(p))
                        fail("chipVlanMapping[", c, "] lacks ", p, " in vlan ", v);
                }
            }
        }
    }

    // Invariant 6 for sub-interfaces, both ways.
    void chipSubIntfFollowsCarriers() {
        for (const auto& [c, e] : ix_.chipSubIntfMapping()) {
            for (const auto& [s, m] : e->subPhyIntfColl()) {
                for (const IntfId& p : m->phyIntfId()) {
                    auto subs = ix_.phySubIntfMapping(p);
                    if (!onChip(p, c) || !subs || !subs->subIntfId(s))
                        fail("chipSubIntfMapping[", c, "] has ", p, " carrying ", s,
                             " without cause");
                }
            }
        }
        for (const auto& [c, e] : ix_.chipIntfMapping()) {
            auto chip = ix_.chipSubIntfMapping(c);
            for (const IntfId& p : e->intfId()) {
                auto subs = ix_.phySubIntfMapping(p);
                if (!subs)
                    continue;
                for (const IntfId& s : subs->subIntfId()) {
                    auto carriers = chip ? chip->subPhyIntfColl(s) : nullptr;
                    if (!carriers || !carriers->phyIntfId(p))
                        fail("chipSubIntfMapping[", c, "] lacks ", p, " carrying ", s);
                }
            }
        }
    }

    // An ACL reaches a port through a parent exactly when it is bound to that parent and the
    // parent resolves to the port: the port itself, a VLAN it is a member of, a sub-interface
    // it carries.
    void parentsFollowBindings() {
        for (const auto& [a, e] : ix_.aclPhyIntfMapping()) {
            for (const auto& [p, m] : e->phyIntfMapping()) {
                for (const IntfId& parent : m->parentIntfId())
                    parentHasCause(a, p, parent);
            }
        }
        for (const auto& [p, vlans] : ix_.phyIntfVlanMapping()) {
            for (const Bridging::VlanId& v : vlans->vlanId()) {
                if (auto acls = ix_.vlanAclMapping(v)) {
                    for (const Ovin::AclKey& a : acls->aclKey())
                        parentPresent(a, p, acls->vlanIntfId(), " is a member of ");
                }
            }
        }
        for (const auto& [s, acls] : ix_.subIntfAclMapping()) {
            if (auto carriers = ix_.subPhyIntfMapping(s)) {
                for (const IntfId& p : carriers->phyIntfId()) {
                    for (const Ovin::AclKey& a : acls->aclKey())
                        parentPresent(a, p, s, " carries ");
                }
            }
        }
    }

    void parentHasCause(const Ovin::AclKey& a, const IntfId& p, const IntfId& parent) {
        auto at = [&](const auto&... why) {
            fail("aclPhyIntfMapping[", a, "].phyIntfMapping[", p, "] has the parent ", parent,
                 why...);
        };
        if (isPhy(parent)) {
            if (parent != p)
                at(", another port");
        } else if (isVlanIntf(parent)) {
            const uint32_t n = parent.first();
            if (n < 1 || n > 4094)
                return at(", which names no VLAN");
            const Bridging::VlanId v(n);
            auto acls = ix_.vlanAclMapping(v);
            auto vlans = ix_.phyIntfVlanMapping(p);
            if (!acls || !acls->aclKey(a))
                at(" but vlanAclMapping[", v, "] lacks ", a);
            else if (!vlans || !vlans->vlanId(v))
                at(" but phyIntfVlanMapping[", p, "] lacks ", v);
        } else {
            auto acls = ix_.subIntfAclMapping(parent);
            auto carriers = ix_.subPhyIntfMapping(parent);
            if (!acls || !acls->aclKey(a))
                at(" but subIntfAclMapping[", parent, "] lacks ", a);
            else if (!carriers || !carriers->phyIntfId(p))
                at(" but subPhyIntfMapping[", parent, "] lacks ", p);
        }
    }

    void parentPresent(const Ovin::AclKey& a, const IntfId& p, const IntfId& parent,
                       const char* relation) {
        auto acl = ix_.aclPhyIntfMapping(a);
        auto m = acl ? acl->phyIntfMapping(p) : nullptr;
        if (!m || !m->parentIntfId(parent))
            fail(a, " is bound to ", parent, " and ", p, relation, parent,
                 " but aclPhyIntfMapping[", a, "].phyIntfMapping[", p, "] lacks that parent");
    }

    // intfAclTypeMapping groups intfAclMapping by table type, both ways.
    void tableTypesFollowIntfAcl() {
        for (const auto& [i, e] : ix_.intfAclTypeMapping()) {
            auto intfAcl = ix_.intfAclMapping(i);
            for (const auto& [t, m] : e->aclTableTypeMapping()) {
                uint32_t out = 0;
                for (const Ovin::AclKey& a : m->aclKey())
                    out += a.direction == Acl::aclDirectionIn ? 0 : 1;
                if (m->outAcls() != out)
                    fail("intfAclTypeMapping[", i, "].aclTableTypeMapping[", t, "] has outAcls ",
                         m->outAcls(), " but ", out, " of its ACLs are not inbound");
                for (const Ovin::AclKey& a : m->aclKey()) {
                    if (!intfAcl || !intfAcl->aclKey(a))
                        fail("intfAclTypeMapping[", i, "] holds ", a, " but intfAclMapping[", i,
                             "] lacks it");
                    else if (IntfAclTypeIndexSm::getTableType(a) != t)
                        fail("intfAclTypeMapping[", i, "].aclTableTypeMapping[", t, "] holds ", a,
                             ", of table type ", IntfAclTypeIndexSm::getTableType(a));
                }
            }
        }
        for (const auto& [i, e] : ix_.intfAclMapping()) {
            auto types = ix_.intfAclTypeMapping(i);
            for (const Ovin::AclKey& a : e->aclKey()) {
                const Mirel::TableType t = IntfAclTypeIndexSm::getTableType(a);
                auto m = types ? types->aclTableTypeMapping(t) : nullptr;
                if (!m || !m->aclKey(a))
                    fail("intfAclMapping[", i, "] holds ", a, " but intfAclTypeMapping[", i,
                         "].aclTableTypeMapping[", t, "] lacks it");
            }
        }
    }

    const Index& ix_;
    std::map<IntfId, Mirel::ChipId> chipOf_;
    std::optional<std::string> failure_;
};

std::optional<std::string> checkIndexConsistency(const Index& index) {
    return IndexChecker(index).run();
}

}  // namespace OvinMirel
