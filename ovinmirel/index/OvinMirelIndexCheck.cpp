#include "ovinmirel/index/OvinMirelIndexCheck.h"

#include <map>
#include <set>
#include <sstream>
#include <tuple>

namespace OvinMirel {

namespace {

using Zamu::IntfId;

bool isPhy(const IntfId& i) {
    return Zamu::EthIntfId::isEthIntfId(i);
}

// Collects the first violation; later ones are ignored.
class Checker {
  public:
    explicit Checker(const Index& ix) : ix_(ix) {}

    std::optional<std::string> run() {
        noEmptyEntriesAndKeysMatch();
        physicalOnly();
        chipMappingsMirror();
        intfAclFollowsAclPhyIntf();
        chipMappingsFollowIntfAndChip();
        subIntfMappingsMirror();
        chipVlanAndSubIntfFollowMembership();
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
    bool failed() const { return failure_.has_value(); }

    // Invariant 1, and every value entity carries the key it is filed under.
    void noEmptyEntriesAndKeysMatch() {
        for (const auto& [i, e] : ix_.intfAclMapping()) {
            if (e->intfId() != i)
                fail("intfAclMapping[", i, "] holds the entry of ", e->intfId());
            if (e->aclKeys() == 0)
                fail("intfAclMapping[", i, "] is empty");
        }
        for (const auto& [a, e] : ix_.aclPhyIntfMapping()) {
            if (e->aclKey() != a)
                fail("aclPhyIntfMapping[", a, "] holds the entry of ", e->aclKey());
            if (e->phyIntfMappings() == 0)
                fail("aclPhyIntfMapping[", a, "] is empty");
            for (const auto& [p, m] : e->phyIntfMapping()) {
                if (m->intfId() != p)
                    fail("aclPhyIntfMapping[", a, "].phyIntfMapping[", p, "] holds ", m->intfId());
                if (m->parentIntfIds() == 0)
                    fail("aclPhyIntfMapping[", a, "].phyIntfMapping[", p, "] is empty");
            }
        }
        for (const auto& [a, e] : ix_.aclChipMapping()) {
            if (e->aclKey() != a)
                fail("aclChipMapping[", a, "] holds the entry of ", e->aclKey());
            if (e->chipIntfMappings() == 0)
                fail("aclChipMapping[", a, "] is empty");
            for (const auto& [c, m] : e->chipIntfMapping()) {
                if (m->chipId() != c)
                    fail("aclChipMapping[", a, "].chipIntfMapping[", c, "] holds ", m->chipId());
                if (m->intfIds() == 0)
                    fail("aclChipMapping[", a, "].chipIntfMapping[", c, "] is empty");
            }
        }
        for (const auto& [c, e] : ix_.chipAclMapping()) {
            if (e->chipId() != c)
                fail("chipAclMapping[", c, "] holds the entry of ", e->chipId());
            if (e->aclIntfMappings() == 0)
                fail("chipAclMapping[", c, "] is empty");
            for (const auto& [a, m] : e->aclIntfMapping()) {
                if (m->aclKey() != a)
                    fail("chipAclMapping[", c, "].aclIntfMapping[", a, "] holds ", m->aclKey());
                if (m->intfIds() == 0)
                    fail("chipAclMapping[", c, "].aclIntfMapping[", a, "] is empty");
            }
        }
        for (const auto& [c, e] : ix_.chipIntfMapping()) {
            if (e->chipId() != c)
                fail("chipIntfMapping[", c, "] holds the entry of ", e->chipId());
            if (e->intfIds() == 0)
                fail("chipIntfMapping[", c, "] is empty");
        }
        for (const auto& [c, e] : ix_.chipVlanMapping()) {
            if (e->chipId() != c)
                fail("chipVlanMapping[", c, "] holds the entry of ", e->chipId());
            if (e->vlanPhyIntfColls() == 0)
                fail("chipVlanMapping[", c, "] is empty");
            for (const auto& [v, m] : e->vlanPhyIntfColl()) {
                if (m->vlanId() != v)
                    fail("chipVlanMapping[", c, "].vlanPhyIntfColl[", v, "] holds ", m->vlanId());
                if (m->phyIntfIds() == 0)
                    fail("chipVlanMapping[", c, "].vlanPhyIntfColl[", v, "] is empty");
            }
        }
        for (const auto& [c, e] : ix_.chipSubIntfMapping()) {
            if (e->chipId() != c)
                fail("chipSubIntfMapping[", c, "] holds the entry of ", e->chipId());
            if (e->subPhyIntfColls() == 0)
                fail("chipSubIntfMapping[", c, "] is empty");
            for (const auto& [s, m] : e->subPhyIntfColl()) {
                if (m->subIntfId() != s)
                    fail("chipSubIntfMapping[", c, "].subPhyIntfColl[", s, "] holds ",
                         m->subIntfId());
                if (m->phyIntfIds() == 0)
                    fail("chipSubIntfMapping[", c, "].subPhyIntfColl[", s, "] is empty");
            }
        }
        for (const auto& [p, e] : ix_.phyIntfVlanMapping()) {
            if (e->intfId() != p)
                fail("phyIntfVlanMapping[", p, "] holds the entry of ", e->intfId());
            if (e->vlanIds() == 0)
                fail("phyIntfVlanMapping[", p, "] is empty");
        }
        for (const auto& [p, e] : ix_.phySubIntfMapping()) {
            if (e->intfId() != p)
                fail("phySubIntfMapping[", p, "] holds the entry of ", e->intfId());
            if (e->subIntfIds() == 0)
                fail("phySubIntfMapping[", p, "] is empty");
        }
        for (const auto& [s, e] : ix_.subPhyIntfMapping()) {
            if (e->subIntfId() != s)
                fail("subPhyIntfMapping[", s, "] holds the entry of ", e->subIntfId());
            if (e->phyIntfIds() == 0)
                fail("subPhyIntfMapping[", s, "] is empty");
        }
        for (const auto& [l, e] : ix_.lagSubIntfMapping()) {
            if (e->lagIntfId() != l)
                fail("lagSubIntfMapping[", l, "] holds the entry of ", e->lagIntfId());
            if (e->subIntfIds() == 0)
                fail("lagSubIntfMapping[", l, "] is empty");
        }
        for (const auto& [s, e] : ix_.subIntfAclMapping()) {
            if (e->subIntfId() != s)
                fail("subIntfAclMapping[", s, "] holds the entry of ", e->subIntfId());
            if (e->aclKeys() == 0)
                fail("subIntfAclMapping[", s, "] is empty");
        }
        for (const auto& [v, e] : ix_.vlanAclMapping()) {
            if (e->vlanId() != v)
                fail("vlanAclMapping[", v, "] holds the entry of ", e->vlanId());
            if (!Zamu::VlanIntfId::isVlanIntfId(e->vlanIntfId()) ||
                e->vlanIntfId().first() != v.value()) {
                fail("vlanAclMapping[", v, "] carries the VLAN interface ", e->vlanIntfId());
            }
            if (e->aclKeys() == 0)
                fail("vlanAclMapping[", v, "] is empty");
        }
        for (const auto& [i, e] : ix_.intfAclTypeMapping()) {
            if (e->intfId() != i)
                fail("intfAclTypeMapping[", i, "] holds the entry of ", e->intfId());
            if (e->aclTableTypeMappings() == 0)
                fail("intfAclTypeMapping[", i, "] is empty");
            for (const auto& [t, m] : e->aclTableTypeMapping()) {
                if (m->aclTableType() != t)
                    fail("intfAclTypeMapping[", i, "].aclTableTypeMapping[", t, "] holds ",
                         m->aclTableType());
                if (m->aclKeys() == 0)
                    fail("intfAclTypeMapping[", i, "].aclTableTypeMapping[", t, "] is empty");
            }
        }
    }

    // Invariant 7.
    void physicalOnly() {
        auto phy = [&](const IntfId& i, const char* where) {
            if (!isPhy(i))
                fail(where, " holds ", i, ", which is not a physical interface");
        };
        for (const auto& [i, e] : ix_.intfAclMapping())
            phy(i, "intfAclMapping");
        for (const auto& [i, e] : ix_.phyIntfVlanMapping())
            phy(i, "phyIntfVlanMapping");
        for (const auto& [i, e] : ix_.phySubIntfMapping())
            phy(i, "phySubIntfMapping");
        for (const auto& [i, e] : ix_.intfAclTypeMapping())
            phy(i, "intfAclTypeMapping");
        for (const auto& [a, e] : ix_.aclPhyIntfMapping()) {
            for (const auto& [p, m] : e->phyIntfMapping()) {
                phy(p, "aclPhyIntfMapping");
                for (const IntfId& parent : m->parentIntfId()) {
                    if (!isPhy(parent) && !Zamu::SubIntfId::isSubIntfId(parent) &&
                        !Zamu::VlanIntfId::isVlanIntfId(parent)) {
                        fail("aclPhyIntfMapping[", a, "].phyIntfMapping[", p, "] has the parent ",
                             parent);
                    }
                }
            }
        }
        for (const auto& [a, e] : ix_.aclChipMapping())
            for (const auto& [c, m] : e->chipIntfMapping())
                for (const IntfId& i : m->intfId())
                    phy(i, "aclChipMapping");
        for (const auto& [c, e] : ix_.chipAclMapping())
            for (const auto& [a, m] : e->aclIntfMapping())
                for (const IntfId& i : m->intfId())
                    phy(i, "chipAclMapping");
        for (const auto& [c, e] : ix_.chipIntfMapping())
            for (const IntfId& i : e->intfId())
                phy(i, "chipIntfMapping");
        for (const auto& [c, e] : ix_.chipVlanMapping())
            for (const auto& [v, m] : e->vlanPhyIntfColl())
                for (const IntfId& i : m->phyIntfId())
                    phy(i, "chipVlanMapping");
        for (const auto& [c, e] : ix_.chipSubIntfMapping()) {
            for (const auto& [s, m] : e->subPhyIntfColl()) {
                if (!Zamu::SubIntfId::isSubIntfId(s))
                    fail("chipSubIntfMapping keys ", s, ", not a sub-interface");
                for (const IntfId& i : m->phyIntfId())
                    phy(i, "chipSubIntfMapping");
            }
        }
        for (const auto& [s, e] : ix_.subPhyIntfMapping()) {
            if (!Zamu::SubIntfId::isSubIntfId(s))
                fail("subPhyIntfMapping keys ", s, ", not a sub-interface");
            for (const IntfId& i : e->phyIntfId())
                phy(i, "subPhyIntfMapping");
        }
        for (const auto& [s, e] : ix_.subIntfAclMapping()) {
            if (!Zamu::SubIntfId::isSubIntfId(s))
                fail("subIntfAclMapping keys ", s, ", not a sub-interface");
        }
        for (const auto& [l, e] : ix_.lagSubIntfMapping()) {
            if (!Zamu::PortChannelIntfId::isPortChannelIntfId(l))
                fail("lagSubIntfMapping keys ", l, ", not a LAG");
            for (const IntfId& s : e->subIntfId()) {
                if (!Zamu::SubIntfId::isPortChannelSubIntfId(s) || s.parent() != l) {
                    fail("lagSubIntfMapping[", l, "] holds ", s, ", not one of its sub-interfaces");
                }
            }
        }
    }

    // Invariant 2.
    void chipMappingsMirror() {
        for (const auto& [a, e] : ix_.aclChipMapping()) {
            for (const auto& [c, m] : e->chipIntfMapping()) {
                auto chip = ix_.chipAclMapping(c);
                auto rev = chip ? chip->aclIntfMapping(a) : nullptr;
                for (const IntfId& i : m->intfId()) {
                    if (!rev || !rev->intfId(i)) {
                        fail("aclChipMapping has (", a, ", ", i, ", chip ", c,
                             ") but chipAclMapping has not");
                    }
                }
            }
        }
        for (const auto& [c, e] : ix_.chipAclMapping()) {
            for (const auto& [a, m] : e->aclIntfMapping()) {
                auto acl = ix_.aclChipMapping(a);
                auto rev = acl ? acl->chipIntfMapping(c) : nullptr;
                for (const IntfId& i : m->intfId()) {
                    if (!rev || !rev->intfId(i)) {
                        fail("chipAclMapping has (", a, ", ", i, ", chip ", c,
                             ") but aclChipMapping has not");
                    }
                }
            }
        }
    }

    // Invariant 3. Each physical interface sits on at most one chip.
    void chipMappingsFollowIntfAndChip() {
        std::map<IntfId, Mirel::ChipId> chipOf;
        for (const auto& [c, e] : ix_.chipIntfMapping()) {
            for (const IntfId& i : e->intfId()) {
                auto [it, fresh] = chipOf.emplace(i, c);
                if (!fresh)
                    fail(i, " is on chip ", it->second, " and on chip ", c);
            }
        }
        for (const auto& [a, e] : ix_.aclChipMapping()) {
            for (const auto& [c, m] : e->chipIntfMapping()) {
                for (const IntfId& i : m->intfId()) {
                    auto intfAcl = ix_.intfAclMapping(i);
                    if (!intfAcl || !intfAcl->aclKey(a))
                        fail("(", a, ", ", i, ", chip ", c, ") is mapped but ", a,
                             " does not reach ", i);
                    auto it = chipOf.find(i);
                    if (it == chipOf.end() || it->second != c)
                        fail("(", a, ", ", i, ", chip ", c, ") is mapped but ", i,
                             " is not on chip ", c);
                }
            }
        }
        for (const auto& [i, e] : ix_.intfAclMapping()) {
            auto it = chipOf.find(i);
            if (it == chipOf.end())
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

    // Invariant 4.
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
                         "] lacks it");
            }
        }
    }

    // Invariant 5.
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

    // Invariant 6, both ways.
    void chipVlanAndSubIntfFollowMembership() {
        std::set<std::tuple<Mirel::ChipId, Bridging::VlanId, IntfId>> vlanWant;
        std::set<std::tuple<Mirel::ChipId, IntfId, IntfId>> subWant;
        for (const auto& [c, e] : ix_.chipIntfMapping()) {
            for (const IntfId& p : e->intfId()) {
                if (auto vlans = ix_.phyIntfVlanMapping(p))
                    for (const Bridging::VlanId& v : vlans->vlanId())
                        vlanWant.emplace(c, v, p);
                if (auto subs = ix_.phySubIntfMapping(p))
                    for (const IntfId& s : subs->subIntfId())
                        subWant.emplace(c, s, p);
            }
        }
        size_t vlanHave = 0, subHave = 0;
        for (const auto& [c, e] : ix_.chipVlanMapping()) {
            for (const auto& [v, m] : e->vlanPhyIntfColl()) {
                for (const IntfId& p : m->phyIntfId()) {
                    ++vlanHave;
                    if (!vlanWant.count({c, v, p}))
                        fail("chipVlanMapping[", c, "] has ", p, " in vlan ", v, " without cause");
                }
            }
        }
        if (vlanHave != vlanWant.size())
            fail("chipVlanMapping lacks ", vlanWant.size() - vlanHave, " member(s)");
        for (const auto& [c, e] : ix_.chipSubIntfMapping()) {
            for (const auto& [s, m] : e->subPhyIntfColl()) {
                for (const IntfId& p : m->phyIntfId()) {
                    ++subHave;
                    if (!subWant.count({c, s, p}))
                        fail("chipSubIntfMapping[", c, "] has ", p, " carrying ", s,
                             " without cause");
                }
            }
        }
        if (subHave != subWant.size())
            fail("chipSubIntfMapping lacks ", subWant.size() - subHave, " carrier(s)");
    }

    const Index& ix_;
    std::optional<std::string> failure_;
};

}  // namespace

std::optional<std::string> checkIndexConsistency(const Index& index) {
    return Checker(index).run();
}

}  // namespace OvinMirel
