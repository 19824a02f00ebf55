// The agent's status root: what a watcher of the root sees while initStatus creates the
// children and clearHubraData drops them, the root collections handed to GlueStatus, and a
// second initStatus keeping what exists.

#include "ovinmirel/report/OvinMirelStatus.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/vorn/Exception.h"

namespace OvinMirel {
namespace {

const std::vector<std::string> kChildNames = {
    "OvinMirelAclColl", "VlanPhyIntfConfigDir", "LagPhyIntfMapping", "GlueConfig",
    "GlueStatus",       "HwCapabilityColl",     "PDConfig",          "PDStatus",
    "OvinMirelIndex",
};

// Records, for every change of one of the nine children, the child's name when it appears
// and "-<attribute>" when it goes, along with what the other children look like at that
// moment (the facts each step may rely on).
class ChildWatcher {
  public:
    explicit ChildWatcher(const Vorn::Ptr<Status>& status) : s_(status) {
        watch(s_->aclCollNotify([this] { seen(s_->aclColl(), "aclColl"); }));
        watch(s_->vlanPhyIntfConfigDirNotify(
            [this] { seen(s_->vlanPhyIntfConfigDir(), "vlanPhyIntfConfigDir"); }));
        watch(s_->lagPhyIntfMappingNotify(
            [this] { seen(s_->lagPhyIntfMapping(), "lagPhyIntfMapping"); }));
        watch(s_->glueConfigNotify([this] { seen(s_->glueConfig(), "glueConfig"); }));
        watch(s_->glueStatusNotify([this] { seen(s_->glueStatus(), "glueStatus"); }));
        watch(s_->hwCapabilityCollNotify([this] {
            // By now GlueStatus is initialised and holds the root collections it was handed.
            Vorn::Ptr<GlueStatus> glue = s_->glueStatus();
            glueReadyAtCapability =
                glue && glue->initialized() &&
                (!s_->rootConfigColl() || glue->rootConfigColl() == s_->rootConfigColl()) &&
                (!s_->rootStatusColl() || glue->rootStatusColl() == s_->rootStatusColl());
            seen(s_->hwCapabilityColl(), "hwCapabilityColl");
        }));
        watch(s_->pDConfigNotify([this] {
            // The capability record went in before the driver configuration.
            auto caps = s_->hwCapabilityColl();
            capabilityRecordAtPDConfig = caps && caps->hwCapability() &&
                                         caps->hwCapability()->name() == Vorn::Name("HwCapability");
            seen(s_->pDConfig(), "pDConfig");
        }));
        watch(s_->pDStatusNotify([this] { seen(s_->pDStatus(), "pDStatus"); }));
        watch(s_->indexNotify([this] { seen(s_->index(), "index"); }));
    }

    std::vector<std::string> events;
    bool glueReadyAtCapability = false;
    bool capabilityRecordAtPDConfig = false;

  private:
    void watch(Vorn::Subscription s) { subs_.push_back(std::move(s)); }
    template <class P>
    void seen(const P& child, const char* attr) {
        events.push_back(child ? child->name().str() : std::string("-") + attr);
    }

    Vorn::Ptr<Status> s_;
    std::vector<Vorn::Subscription> subs_;
};

TEST(Status, InitStatusCreatesAndClearHubraDataDropsInOrder) {
    struct Case {
        const char* name;
        bool rootConfig;
        bool rootStatus;
    };
    const Case cases[] = {
        {"both root collections set", true, true},
        {"none set", false, false},
        {"only the root configurations set", true, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto status = statusFactory("OvinMirelStatus");
        auto rootConfigs = Mirel::rootConfigCollFactory("RootConfigColl");
        auto rootStatuses = Mirel::rootStatusCollFactory("RootStatusColl");
        if (c.rootConfig)
            status->rootConfigCollIs(rootConfigs);
        if (c.rootStatus)
            status->rootStatusCollIs(rootStatuses);
        ChildWatcher watcher(status);

        status->initStatus();
        EXPECT_EQ(watcher.events, kChildNames);
        EXPECT_TRUE(watcher.glueReadyAtCapability);
        EXPECT_TRUE(watcher.capabilityRecordAtPDConfig);
        Vorn::Ptr<GlueStatus> glue = status->glueStatus();
        ASSERT_TRUE(glue);
        ASSERT_TRUE(glue->aclIdResponseColl());
        // The given collections, or GlueStatus's own when none was given.
        ASSERT_TRUE(glue->rootConfigColl());
        ASSERT_TRUE(glue->rootStatusColl());
        EXPECT_EQ(glue->rootConfigColl() == rootConfigs, c.rootConfig);
        EXPECT_EQ(glue->rootStatusColl() == rootStatuses, c.rootStatus);

        watcher.events.clear();
        status->clearHubraData();
        EXPECT_EQ(watcher.events,
                  (std::vector<std::string>{
                      "-aclColl", "-vlanPhyIntfConfigDir", "-lagPhyIntfMapping", "-glueConfig",
                      "-glueStatus", "-hwCapabilityColl", "-pDConfig", "-pDStatus", "-index"}));
        // The inputs are the agent's, not children.
        EXPECT_EQ(status->rootConfigColl() == rootConfigs, c.rootConfig);
    }
}

TEST(Status, SecondInitStatusMakesOnlyWhatIsMissing) {
    auto status = statusFactory("OvinMirelStatus");
    status->initStatus();
    auto acls = status->aclColl();
    auto index = status->index();
    auto record = status->hwCapabilityColl()->hwCapability();
    ASSERT_TRUE(acls);
    ASSERT_TRUE(record);
    status->pDStatusDel();

    ChildWatcher watcher(status);
    status->initStatus();
    EXPECT_EQ(watcher.events, std::vector<std::string>{"PDStatus"});
    EXPECT_EQ(status->aclColl(), acls);
    EXPECT_EQ(status->index(), index);
    EXPECT_EQ(status->hwCapabilityColl()->hwCapability(), record);
}

}  // namespace
}  // namespace OvinMirel
