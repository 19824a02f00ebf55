// Interface bindings: only interfaces that can carry an ACL, with valid slots and names.

#include "platform/ovin/AclIntfConfig.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "platform/vorn/Exception.h"

namespace {

TEST(AclIntfConfig, BindingsThatCannotExistAreRefused) {
    auto config = Acl::intfConfigFactory("IntfConfig");
    for (const char* ok :
         {"Ethernet1", "Port-Channel2", "Vlan10", "Ethernet3.7", "Port-Channel2.5"})
        config->appliedAclIs({Zamu::IntfId(ok), Acl::aclTypeIpv4, Acl::aclDirectionIn}, "a");
    const size_t before = config->appliedAcls();
    struct Case {
        const char* name;
        Acl::AclBinding binding;
        const char* aclName;
    };
    const Case cases[] = {
        {"empty interface", {Zamu::IntfId(), Acl::aclTypeIpv4, Acl::aclDirectionIn}, "a"},
        {"bad type", {Zamu::IntfId("Ethernet1"), Acl::AclType(7)}, "a"},
        {"bad direction", {Zamu::IntfId("Ethernet1"), Acl::aclTypeIpv4, Acl::AclDirection(2)}, "a"},
        {"bad name", {Zamu::IntfId("Ethernet9")}, "no spaces"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_THROW(config->appliedAclIs(c.binding, c.aclName), std::invalid_argument);
    }
    try {
        config->appliedAclIs({Zamu::IntfId::vlan(4095)}, "a");
        ADD_FAILURE() << "no error";
    } catch (const Vorn::RangeException& e) {
        EXPECT_STREQ(e.what(), "VlanId::value < 1 or > 4094 not allowed");
    }
    EXPECT_EQ(config->appliedAcls(), before);
}

}  // namespace
