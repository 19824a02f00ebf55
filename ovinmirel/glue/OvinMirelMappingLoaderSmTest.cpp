// The mapping loader between a chip's platform-independent data-flow configuration and the one
// in its PD configuration: when the glue state lets it write, what it writes, and in which
// order, observed on the real output entity.

#include "ovinmirel/glue/OvinMirelMappingLoaderSm.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/flinq/Flinq.h"
#include "platform/mirel/PDConfig.h"
#include "tests/TestSupport.h"

namespace OvinMirel {
namespace {

using Strings = std::vector<std::string>;
using TestSupport::str;

const Mirel::ChipId kChip(3);

// The only place that builds a rule list key.
Mirel::ChipRuleListIdKey rlKey(int hwAclIndex) {
    return Mirel::ChipRuleListIdKey(Mirel::HwAclIndex(hwAclIndex), Mirel::ipv4PortAcl_,
                                    Mirel::protocolAll_);
}
Mirel::AclId aclId(int id) {
    return Mirel::AclId(Mirel::ipv4PortAcl_, static_cast<uint8_t>(id), Acl::aclDirectionIn);
}

// Every entry of a data-flow configuration as one line, table by table in key order.
Strings dump(const Mirel::ChipDataFlowConfig& c) {
    Strings out;
    for (const auto& [k, v] : c.chipRuleListKeyToId())
        out.push_back("rl " + str(k.hwAclIndex()) + "=" + str(int(v.chipRuleListId())));
    for (const auto& [k, v] : c.intfToHwAclIndex())
        out.push_back("intf " + str(k) + "=" + str(v));
    for (const auto& [k, v] : c.routedPortToHwAclIndex())
        out.push_back("routed " + str(k) + "=" + str(v));
    for (const auto& [k, v] : c.vlanToHwAclIndex())
        out.push_back("vlan " + str(k) + "=" + str(v));
    for (const auto& [k, v] : c.subIntfToHwAclIndex())
        out.push_back("sub " + str(k) + "=" + str(v));
    if (c.globalAclControl() != 0)
        out.push_back("control " + str(c.globalAclControl()));
    return out;
}

class MappingLoaderSmTest : public ::testing::Test {
  protected:
    // Starts the loader in `state`, as the glue does once the chip's records exist.
    void start(GlueSmState state = idle_) {
        glueStatus->glueSmStateIs(state);
        loader = loaders->mappingLoaderIs(kChip, input, output, glueStatus, wheel);
        loader->handleInitialized();
    }
    // A complete small mapping: rule list 1 (id 10) used by a port, a routed port, a VLAN and a
    // sub-interface.
    void fillInput() {
        input->chipRuleListKeyToIdIs(rlKey(1), aclId(10));
        input->intfToHwAclIndexIs("Ethernet1", Mirel::HwAclIndex(1));
        input->routedPortToHwAclIndexIs("Ethernet2", Mirel::HwAclIndex(1));
        input->vlanToHwAclIndexIs(Bridging::VlanId(10), Mirel::HwAclIndex(1));
        input->subIntfToHwAclIndexIs("Ethernet3.5", Mirel::HwAclIndex(1));
    }

    Vorn::ScopedVirtualClock clock{100.0};
    Brix::TimerWheel wheel;
    Vorn::Ptr<GlueStatus> glueStatus = glueStatusFactory("glueStatus");
    Vorn::Ptr<Mirel::ChipDataFlowConfig> input = Mirel::chipDataFlowConfigFactory(kChip);
    Vorn::Ptr<Mirel::PDConfig> pdConfig = Mirel::pdConfigFactory("pdConfig");
    Vorn::Ptr<Mirel::ChipDataFlowConfig> output =
        pdConfig->chipConfigIs(kChip)->chipDataFlowConfig();
    Vorn::Ptr<MappingLoaderSmColl> loaders = mappingLoaderSmCollFactory("mappingLoaderSmColl");
    Vorn::Ptr<MappingLoaderSm> loader;
};

const Strings kFilled = {"rl 1=10", "intf Ethernet1=1", "routed Ethernet2=1", "vlan 10=1",
                         "sub Ethernet3.5=1"};

TEST_F(MappingLoaderSmTest, ChangesWaitOutsideTheStableStatesUntilMappingLoaderOrIdle) {
    struct Release {
        const char* name;
        GlueSmState state;
        bool needsTimer;  // written only once the wheel is serviced
    };
    const Release releases[] = {
        {"mappingLoader", mappingLoader_, false},
        {"success then idle", idle_, true},
    };
    Strings filled = kFilled;
    filled.push_back("control 1");
    start();
    for (GlueSmState held :
         {unknown_, aclIdAlloc_, aclIdAllocFail_, computing_, loading_, blockIntf_, unblockIntf_}) {
        for (const Release& r : releases) {
            SCOPED_TRACE(str(held) + ", released at " + r.name);
            glueStatus->glueSmStateIs(held);
            output->mappingsDelAll();
            output->globalAclControlIs(0);
            input->mappingsDelAll();
            input->globalAclControlIs(0);
            Flinq::Capture cap;
            fillInput();
            input->globalAclControlIs(1);
            wheel.runUntilIdle();
            EXPECT_TRUE(cap.has("Chip-3 handleQueueProcessTimer state: " + str(held)));
            EXPECT_TRUE(cap.has("Chip-3 handleQueueProcessTimer not in stable state, returning"));
            EXPECT_EQ(dump(*output), Strings{});
            if (r.state == idle_)
                glueStatus->glueSmStateIs(success_);  // not stable: nothing yet
            glueStatus->glueSmStateIs(r.state);
            EXPECT_EQ(dump(*output), r.needsTimer ? Strings{} : filled);
            EXPECT_EQ(wheel.runPass(), r.needsTimer ? 1u : 0u);
            EXPECT_EQ(dump(*output), filled);
            EXPECT_EQ(loader->intfQueue().size() + loader->chipRuleListIdKeyQueue().size(), 0u);
        }
    }
}

TEST_F(MappingLoaderSmTest, OnlyTheInputAtProcessingTimeCounts) {
    start();
    input->intfToHwAclIndexIs("Ethernet9", Mirel::HwAclIndex(4));
    wheel.runPass();
    ASSERT_EQ(dump(*output), Strings{"intf Ethernet9=4"});
    glueStatus->glueSmStateIs(computing_);
    // Added then removed, changed then removed, and changed twice, all while held.
    input->intfToHwAclIndexIs("Ethernet1", Mirel::HwAclIndex(1));
    input->intfToHwAclIndexDel("Ethernet1");
    input->intfToHwAclIndexIs("Ethernet9", Mirel::HwAclIndex(5));
    input->intfToHwAclIndexDel("Ethernet9");
    input->vlanToHwAclIndexIs(Bridging::VlanId(7), Mirel::HwAclIndex(1));
    input->vlanToHwAclIndexIs(Bridging::VlanId(7), Mirel::HwAclIndex(2));
    glueStatus->glueSmStateIs(mappingLoader_);
    EXPECT_EQ(dump(*output), Strings{"vlan 7=2"});
}

TEST_F(MappingLoaderSmTest, RuleListsAreDefinedBeforeUseAndRemovedAfterIt) {
    start();
    // Every output change must leave each place pointing at an index that has a rule list.
    Strings problems;
    Strings order;
    auto check = [&](const std::string& what) {
        order.push_back(what);
        auto defined = [&](Mirel::HwAclIndex index) {
            for (const auto& entry : output->chipRuleListKeyToId()) {
                if (entry.first.hwAclIndex() == index)
                    return true;
            }
            return false;
        };
        for (const auto& [k, v] : output->intfToHwAclIndex()) {
            if (!defined(v))
                problems.push_back(what + ": " + str(k) + " points at undefined " + str(v));
        }
        for (const auto& [k, v] : output->vlanToHwAclIndex()) {
            if (!defined(v))
                problems.push_back(what + ": vlan " + str(k) + " points at undefined " + str(v));
        }
    };
    Vorn::Subscription rl = output->chipRuleListKeyToIdNotify(
        [&](const Mirel::ChipRuleListIdKey& k) { check("rl " + str(k.hwAclIndex())); });
    Vorn::Subscription intf =
        output->intfToHwAclIndexNotify([&](const Zamu::IntfId& k) { check("intf " + str(k)); });
    Vorn::Subscription vlan =
        output->vlanToHwAclIndexNotify([&](const Bridging::VlanId& k) { check("vlan " + str(k)); });

    input->chipRuleListKeyToIdIs(rlKey(1), aclId(10));
    input->intfToHwAclIndexIs("Ethernet1", Mirel::HwAclIndex(1));
    input->vlanToHwAclIndexIs(Bridging::VlanId(20), Mirel::HwAclIndex(1));
    wheel.runPass();
    // The PD mapping moves both places to index 2, drops index 1 and adds index 3, in its own
    // order; the run takes the keys of each table in key order.
    input->chipRuleListKeyToIdIs(rlKey(3), aclId(12));
    input->chipRuleListKeyToIdDel(rlKey(1));
    input->intfToHwAclIndexIs("Ethernet1", Mirel::HwAclIndex(2));
    input->vlanToHwAclIndexDel(Bridging::VlanId(20));
    input->chipRuleListKeyToIdIs(rlKey(2), aclId(11));
    wheel.runPass();
    EXPECT_EQ(problems, Strings{});
    EXPECT_EQ(order, (Strings{"rl 1", "intf Ethernet1", "vlan 20", "rl 2", "rl 3", "intf Ethernet1",
                              "vlan 20", "rl 1"}));
    EXPECT_EQ(dump(*output), (Strings{"rl 2=11", "rl 3=12", "intf Ethernet1=2"}));
}

TEST_F(MappingLoaderSmTest, GlobalAclControlIsWrittenAfterTheMappingsOfItsRun) {
    start();
    Strings order;
    Vorn::Subscription intf = output->intfToHwAclIndexNotify(
        [&](const Zamu::IntfId& k) { order.push_back("intf " + str(k)); });
    Vorn::Subscription control = output->globalAclControlNotify(
        [&] { order.push_back("control " + str(output->globalAclControl())); });
    input->globalAclControlIs(1);
    input->intfToHwAclIndexIs("Ethernet1", Mirel::HwAclIndex(1));
    input->globalAclControlIs(0);
    input->globalAclControlIs(1);
    wheel.runPass();
    EXPECT_EQ(order, (Strings{"intf Ethernet1", "control 1"}));
}

TEST_F(MappingLoaderSmTest, InitialisationKeepsOnlyRoutedPortsTheInputLacks) {
    output->chipRuleListKeyToIdIs(rlKey(9), aclId(90));
    output->intfToHwAclIndexIs("Ethernet8", Mirel::HwAclIndex(9));
    output->routedPortToHwAclIndexIs("Ethernet9", Mirel::HwAclIndex(9));
    output->vlanToHwAclIndexIs(Bridging::VlanId(99), Mirel::HwAclIndex(9));
    output->subIntfToHwAclIndexIs("Ethernet8.1", Mirel::HwAclIndex(9));
    fillInput();
    start(idle_);
    EXPECT_EQ(dump(*output), (Strings{"rl 1=10", "intf Ethernet1=1", "routed Ethernet2=1",
                                      "routed Ethernet9=9", "vlan 10=1", "sub Ethernet3.5=1"}));
}

TEST_F(MappingLoaderSmTest, AbortingAndFailDropWhatIsPending) {
    for (GlueSmState discard : {aborting_, fail_}) {
        SCOPED_TRACE(str(discard));
        if (!loader)
            start();
        input->mappingsDelAll();
        output->mappingsDelAll();
        output->globalAclControlIs(0);
        output->intfToHwAclIndexIs("Ethernet1", Mirel::HwAclIndex(1));
        glueStatus->glueSmStateIs(computing_);
        fillInput();
        input->intfToHwAclIndexIs("Ethernet1", Mirel::HwAclIndex(2));
        input->globalAclControlIs(input->globalAclControl() + 1);
        Flinq::Capture cap;
        glueStatus->glueSmStateIs(discard);
        EXPECT_TRUE(cap.has("Chip-3 handleQueueProcessTimer fail, remove all pending"));
        EXPECT_EQ(dump(*output), Strings{"intf Ethernet1=1"});
        // The failed cycle's own mappingLoader pass writes none of the mappings (the control
        // change, kept, is written) ...
        glueStatus->glueSmStateIs(mappingLoader_);
        EXPECT_EQ(dump(*output),
                  (Strings{"intf Ethernet1=1", "control " + str(input->globalAclControl())}));
        EXPECT_TRUE(loader->resyncPending());
        // ... but the input follows the active root the abort left in place, so once idle the
        // output is reconciled with it: nothing the chip needs is lost with the dropped keys.
        glueStatus->glueSmStateIs(idle_);
        wheel.runUntilIdle();
        std::vector<std::string> expected = kFilled;
        expected[1] = "intf Ethernet1=2";
        expected.push_back("control " + str(input->globalAclControl()));
        EXPECT_EQ(dump(*output), expected);
        EXPECT_FALSE(loader->resyncPending());
    }
}

TEST_F(MappingLoaderSmTest, LifeCycleAndReferences) {
    auto early = mappingLoaderSmFactory(kChip, input, output, glueStatus, wheel);
    EXPECT_DEATH(early->handleIntfId("Ethernet1"), "initialized\\(\\)");
    start();
    EXPECT_EQ(loaders->mappingLoaderIs(kChip, input, output, glueStatus, wheel), loader);
    Brix::TimerWheel otherWheel;
    EXPECT_THROW(loaders->mappingLoaderIs(kChip, input, output, glueStatus, otherWheel),
                 Vorn::ReinstantiationException);
    // A deleted loader writes nothing more, even with its timer armed.
    input->intfToHwAclIndexIs("Ethernet1", Mirel::HwAclIndex(1));
    loaders->mappingLoaderDel(kChip);
    EXPECT_FALSE(loader->initialized());
    input->intfToHwAclIndexIs("Ethernet2", Mirel::HwAclIndex(1));
    glueStatus->glueSmStateIs(mappingLoader_);
    wheel.runUntilIdle();
    EXPECT_EQ(dump(*output), Strings{});
}

}  // namespace
}  // namespace OvinMirel
