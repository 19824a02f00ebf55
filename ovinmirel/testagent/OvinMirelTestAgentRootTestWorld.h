#pragma once
// A test agent on a virtual clock and a wheel of its own, with the glue's invariants checked
// after every pass (a violation fails the test where it happens) and a log of every glue state
// a watcher saw. The unit tests of the root and the end-to-end tests build on it. Header only;
// not part of the library.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "ovinmirel/testagent/OvinMirelTestAgentRoot.h"
#include "tests/TestSupport.h"

namespace OvinMirel::TestAgentTest {

using TestSupport::aclKey;

struct World {
    Vorn::ScopedVirtualClock clock{100.0};
    Brix::TimerWheel wheel;
    // Destroyed before the wheel and the clock.
    Vorn::Ptr<TestAgentRoot> root = testAgentRootFactory("TestAgentRoot", wheel);
    std::vector<GlueSmState> states;

    World() {
        root->glueCheckIs(true);
        root->afterPassIs([this] {
            if (root->glueViolation() && !violationReported_) {
                violationReported_ = true;
                ADD_FAILURE() << "glue invariant: " << *root->glueViolation();
            }
        });
        stateSub_ = glueStatus()->glueSmStateNotify(
            [this] { states.push_back(glueStatus()->glueSmState()); });
    }
    ~World() {
        stateSub_.reset();
        root = nullptr;
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    // ---- Shorthands ----
    const Vorn::Ptr<Status>& status() const { return root->ovinMirelStatus(); }
    Vorn::Ptr<GlueStatus> glueStatus() const { return status()->glueStatus(); }
    Vorn::Ptr<OvinMirelAcl> stored(const Ovin::AclKey& key) const {
        return status()->aclColl()->acl(key);
    }
    Vorn::Ptr<Acl::AclStatus> outcome(const Ovin::AclKey& key) const {
        return root->statusDp()->aclStatus(key);
    }
    Vorn::Ptr<Mirel::ChipDataFlowConfig> loaded(uint32_t chip) const {
        return root->loadedDataFlow(Mirel::ChipId(chip));
    }
    void chip(uint32_t id, const TestAgentChipCapability& cap = {}) {
        root->chipIs(Mirel::ChipId(id), cap);
    }
    void port(const char* intf, uint32_t chip) { root->portIs(intf, Mirel::ChipId(chip)); }
    void rule(const std::string& name, Acl::AclType type, const std::string& line) {
        root->aclRuleIs(name, type, line);
    }
    void bind(const char* intf, const std::string& name, Acl::AclType type = Acl::aclTypeIpv4,
              Acl::AclDirection direction = Acl::aclDirectionIn) {
        root->aclBindingIs(intf, type, direction, name);
    }
    void unbind(const char* intf, Acl::AclType type = Acl::aclTypeIpv4,
                Acl::AclDirection direction = Acl::aclDirectionIn) {
        root->aclBindingDel(intf, type, direction);
    }
    void settle() { root->runUntilIdle(); }
    std::vector<GlueSmState> takeStates() { return std::exchange(states, {}); }
    // The chip's ACL ids for the ACL, null when it has none.
    Vorn::Ptr<Mirel::AclIdTypeSet> aclIds(uint32_t chip, const Ovin::AclKey& key) const {
        const Vorn::Ptr<AclIdResponse> r =
            glueStatus()->aclIdResponseColl()->chipAclIdResponse(Mirel::ChipId(chip));
        return r ? r->response(key) : nullptr;
    }

  private:
    bool violationReported_ = false;
    Vorn::Subscription stateSub_;
};

}  // namespace OvinMirel::TestAgentTest
