#include "ovinmirel/testagent/OvinMirelTestAgentRoot.h"

#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "platform/flinq/Flinq.h"
#include "platform/mirel/AclRuleList.h"
#include "platform/ovin/AclRuleText.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {

static Flinq::Handle th("OvinMirelTestAgentRoot");

namespace {

// A run that fires this many passes without settling is a timer re-arming itself for ever.
constexpr int kMaxPasses = 100000;

Vorn::VirtualClock* installedVirtualClock() {
    auto* clock = dynamic_cast<Vorn::VirtualClock*>(&Vorn::clock());
    if (!clock)
        throw std::logic_error("TestAgentRoot: the installed clock is not a Vorn::VirtualClock");
    return clock;
}

std::string chipName(Mirel::ChipId chip) {
    return "Chip-" + std::to_string(chip.value());
}

std::string keyText(const Ovin::AclKey& key) {
    std::ostringstream os;
    os << key;
    return os.str();
}

}  // namespace

TestAgentRoot::TestAgentRoot(const Vorn::Name& name, Brix::TimerWheel& timerWheel)
    : name_(name), timerWheel_(&timerWheel), clock_(installedVirtualClock()) {
    FLINQ(th, 2, "TestAgentRoot " << name_ << " starting");
    // The engine's own entities and the interface configuration the agent is handed.
    ovinCommonSmDataIs(Ovin::ovinCommonSmDataFactory("OvinCommonSmData", timerWheel));
    ovinMirelConfigIs(configFactory("OvinMirelConfig"));
    aclConfig_ = Acl::configFactory("AclConfig");
    intfConfig_ = Acl::intfConfigFactory("AclIntfConfig");
    aclParamConfig_ = Acl::paramConfigFactory("AclParamConfig");
    statusDp_ = Acl::statusDpFactory("AclStatusDp");
    subIntfConfigDir_ = Interface::subIntfConfigDirFactory("SubIntfConfigDir");
    subIntfStatusDir_ = Interface::subIntfStatusDirFactory("SubIntfStatusDir");
    lagConfig_ = testAgentLagConfigFactory("TestAgentLagConfig");
    scheduler_ = Brix::taskSchedulerVornActivityFactory(timerWheel);

    // 1. The status root, given the driver's root collections.
    status_ = statusFactory("OvinMirelStatus");
    status_->rootConfigCollIs(Mirel::rootConfigCollFactory("RootConfigColl"));
    status_->rootStatusCollIs(Mirel::rootStatusCollFactory("RootStatusColl"));
    status_->initStatus();
    vlanPhyIntfConfigLibIs(status_->vlanPhyIntfConfigDir());

    // 2. The ACL helper, with the platform's capabilities.
    const Vorn::Ptr<TestAclHelper> helper =
        testAclHelperFactory(status_->aclColl(), status_->glueConfig(), status_->glueStatus(),
                             status_->hwCapabilityColl(), status_->index());
    helper->hwInit();
    helper->verifyHwInit();
    helper->pDStatusIs(status_->pDStatus());
    ovinMirelAclHelperIs(helper);

    // 3. The index builder.
    const Vorn::Ptr<IndexSm> index =
        indexSmFactory(status_->aclColl(), status_->pDStatus(), status_->vlanPhyIntfConfigDir(),
                       status_->lagPhyIntfMapping(), subIntfConfigDir_, status_->index());
    indexSmIs(index);
    index->handleInitialized();

    // 4. The glue, making the root machines itself: no hardware layer here makes them.
    const Vorn::Ptr<GlueSm> glue =
        glueSmFactory(status_->index(), status_->aclColl(), status_->glueConfig(),
                      status_->glueStatus(), status_->hwCapabilityColl(), status_->pDStatus(),
                      status_->pDConfig(), aclParamConfig_, &timerWheel, scheduler_);
    glue->instantiatePerChipSmIs(true);
    glue->instantiateRootSmIs(true);
    ovinMirelGlueSmIs(glue);
    glue->handleInitialized();
    glueSmStateSub_ = status_->glueStatus()->glueSmStateNotify([this] {
        if (status_->glueStatus()->glueSmState() == aclIdAlloc_)
            ++cycles_;
    });

    // 5. The agent ACL state machine.
    const Vorn::Ptr<OvinMirelAclSm> aclSm = ovinMirelAclSmFactory(
        ovinCommonSmData(), aclConfig_, aclParamConfig_, Acl::configDirFactory("AclConfigDir"),
        intfConfig_, Acl::configDirFactory("AclIntfConfigDir"), statusDp_,
        Errdisable::causeStatusFactory("ErrdisableCauseStatus"),
        Lag::Input::configFactory("LagInputConfig", status_->lagPhyIntfMapping()), helper, *clock_,
        Bridging::configFactory("BridgingConfig"), subIntfStatusDir_, subIntfConfigDir_,
        status_->glueStatus(), status_->aclColl());
    aclSm->indexIs(status_->index());
    ovinAclSmIs(aclSm);
    aclSm->handleInitialized();

    // 6. The environment: the driver's chip mocks and the LAG manager.
    mockSmCollIs(testAgentMockSmCollFactory("TestAgentMockSmColl"));
    const Vorn::Ptr<TestAgentMockSmManager> manager = testAgentMockSmManagerFactory(
        status_->pDConfig(), status_->pDStatus(), mockSmColl(), timerWheel);
    mockSmManagerIs(manager);
    manager->handleInitialized();
    const Vorn::Ptr<LagPhyIntfMappingSm> lag =
        lagPhyIntfMappingSmFactory(lagConfig_, status_->lagPhyIntfMapping());
    lagPhyIntfMappingSmIs(lag);
    lag->handleInitialized();

    // 7. Capacity reporting.
    tableCapacity_ = OvinCapacity::tableCapacityFactory("TableCapacity");
    capacitySm_ = capacitySmFactory(tableCapacity_, *clock_, status_->rootConfigColl(),
                                    status_->rootStatusColl(), status_->hwCapabilityColl(),
                                    status_->pDStatus(), timerWheel);
    FLINQ(th, 2, "TestAgentRoot " << name_ << " started");
}

TestAgentRoot::~TestAgentRoot() {
    stop();
}

void TestAgentRoot::stop() {
    FLINQ(th, 2, "TestAgentRoot " << name_ << " stopping");
    glueChecker_.reset();
    glueSmStateSub_.reset();
    if (capacitySm_ && capacitySm_->initialized())
        capacitySm_->handleDelete();
    capacitySm_ = nullptr;
    if (const auto lag = lagPhyIntfMappingSm(); lag && lag->initialized())
        lag->handleDelete();
    lagPhyIntfMappingSmDel();
    if (const auto manager = mockSmManager(); manager && manager->initialized())
        manager->handleDelete();
    mockSmManagerDel();
    mockSmCollDel();
    if (const auto aclSm = ovinAclSm(); aclSm && aclSm->initialized())
        aclSm->handleDelete();
    ovinAclSmDel();
    if (const auto glue = ovinMirelGlueSm(); glue && glue->initialized())
        glue->handleDelete();
    ovinMirelGlueSmDel();
    if (const auto index = indexSm(); index && index->initialized())
        index->handleDelete();
    indexSmDel();
    if (const auto helper = ovinMirelAclHelper())
        helper->handleDeleted();
    ovinMirelAclHelperDel();
    vlanPhyIntfConfigLibDel();
    status_->clearHubraData();
}

// ---- Chips and ports ----

void TestAgentRoot::chipIs(Mirel::ChipId chip, const TestAgentChipCapability& capability) {
    if (chip.value() > kMaxChipId)
        Vorn::throwRangeError("TestAgentRoot::chip > " + std::to_string(kMaxChipId) +
                              " not allowed");
    // Chip rule list ids are 8 bits wide and hardware ACL indexes 16: a driver publishing more
    // is refused here, before the per-chip machines take it for an invariant.
    if (capability.chipRuleListIdMax > 255)
        Vorn::throwRangeError("TestAgentRoot::chipRuleListIdMax > 255 not allowed");
    if (capability.hwAclIndexMax > 65535)
        Vorn::throwRangeError("TestAgentRoot::hwAclIndexMax > 65535 not allowed");
    // Every combination is checked before the first write.
    std::vector<Mirel::AclTypeCombinationBitMask> combinations;
    for (uint32_t c : capability.aclTypeCombinations)
        combinations.emplace_back(c);
    FLINQ(th, 2, "TestAgentRoot::chipIs " << chipName(chip));
    const Vorn::Ptr<Mirel::ChipHwCapability> cap =
        status_->hwCapabilityColl()->chipHwCapabilityIs(chip);
    cap->chipRuleListIdMaxIs(capability.chipRuleListIdMax);
    cap->aclSplitOnProtocolSupportedIs(capability.aclSplitOnProtocolSupported);
    cap->hwAclIndexMaxIs(capability.hwAclIndexMax);
    cap->hwAclIndexReservedIs(capability.hwAclIndexReserved);
    cap->tcamEntryMaxIs(capability.tcamEntryMax);
    cap->xformEntryMaxIs(capability.xformEntryMax);
    for (size_t i = 0; i < combinations.size(); ++i)
        cap->aclTypeCombinationByPriorityIs(Mirel::AclTypePriority{uint32_t(i + 1)},
                                            combinations[i]);
    for (const Mirel::AclTypePriority& p : cap->aclTypeCombinationByPriority().keys()) {
        if (p.value > combinations.size())
            cap->aclTypeCombinationByPriorityDel(p);
    }
    status_->pDStatus()->chipPDStatusIs(chip);
}

void TestAgentRoot::chipDel(Mirel::ChipId chip) {
    FLINQ(th, 2, "TestAgentRoot::chipDel " << chipName(chip));
    const Vorn::Ptr<Mirel::PDStatus> pd = status_->pDStatus();
    for (const Zamu::IntfId& port : pd->intfMapping().sortedKeys()) {
        if (pd->intfMapping(port)->chipId() == chip)
            pd->intfMappingDel(port);
    }
    pd->chipPDStatusDel(chip);
    status_->hwCapabilityColl()->chipHwCapabilityDel(chip);
}

bool TestAgentRoot::chip(Mirel::ChipId chip) const {
    return status_->hwCapabilityColl()->chipHwCapability(chip) &&
           status_->pDStatus()->chipPDStatus(chip);
}

void TestAgentRoot::portIs(const Zamu::IntfId& port, Mirel::ChipId chip) {
    if (!Zamu::EthIntfId::isEthIntfId(port))
        throw std::invalid_argument("TestAgentRoot::port: " + port.name() +
                                    " is not an Ethernet interface");
    if (!this->chip(chip))
        throw std::invalid_argument("TestAgentRoot::port: " + chipName(chip) + " is not present");
    const Vorn::Ptr<Mirel::PDStatus> pd = status_->pDStatus();
    if (const Vorn::Ptr<Mirel::IntfMapping> mapping = pd->intfMapping(port)) {
        if (mapping->chipId() == chip)
            return;
        // A driver presents a move as the port leaving one chip and joining the other.
        pd->intfMappingDel(port);
    }
    FLINQ(th, 8, "TestAgentRoot::portIs " << port << " " << chipName(chip));
    pd->intfMappingIs(port, chip);
}

void TestAgentRoot::portDel(const Zamu::IntfId& port) {
    status_->pDStatus()->intfMappingDel(port);
}

// ---- Interfaces and membership ----

void TestAgentRoot::vlanMemberIs(int64_t vlan, const Zamu::IntfId& port, bool member) {
    const Bridging::VlanId vlanId(vlan);
    if (!Zamu::EthIntfId::isEthIntfId(port))
        throw std::invalid_argument("TestAgentRoot::vlanMember: " + port.name() +
                                    " is not an Ethernet interface");
    const Vorn::Ptr<VlanPhyIntfConfigLib::VlanPhyIntfConfigDir> vlans = vlanPhyIntfConfigLib();
    if (member) {
        vlans->vlanPhyIntfConfigIs(vlanId)->phyIntfIs(port);
        return;
    }
    vlans->vlanPhyIntfConfigDelMember(vlanId, [&](VlanPhyIntfConfigLib::VlanPhyIntfConfig& v) {
        v.phyIntfDel(port);
        return v.phyIntfs();
    });
}

void TestAgentRoot::lagMemberIs(const Zamu::IntfId& port, const Zamu::IntfId& lag) {
    lagConfig_->channelGroupIs(port, lag);
}

void TestAgentRoot::lagMemberDel(const Zamu::IntfId& port) {
    lagConfig_->channelGroupDel(port);
}

void TestAgentRoot::subIntfIs(const Zamu::IntfId& intf) {
    if (!Zamu::SubIntfId::isSubIntfId(intf))
        throw std::invalid_argument("TestAgentRoot::subIntf: " + intf.name() +
                                    " is not a sub-interface");
    subIntfStatusDir_->intfStatusIs(intf)->operUpIs(true);
    subIntfConfigDir_->intfConfigIs(intf);
}

void TestAgentRoot::subIntfDel(const Zamu::IntfId& intf) {
    subIntfConfigDir_->intfConfigDel(intf);
    subIntfStatusDir_->intfStatusDel(intf);
}

// ---- ACL configuration and bindings ----

Vorn::Ptr<Acl::AclConfig> TestAgentRoot::aclOf(const std::string& name, Acl::AclType type) const {
    return aclConfig_->acl(Acl::AclConfigKey{name, type});
}

void TestAgentRoot::aclRuleIs(const std::string& name, Acl::AclType type, std::string_view line) {
    const Acl::RuleTextResult r = Acl::parseRuleText(line, type);
    if (!r.ok())
        throw std::invalid_argument(r.error);
    aclEntryIs(name, type, r.rule->seq, r.rule->entry);
}

void TestAgentRoot::aclEntryIs(const std::string& name, Acl::AclType type, int64_t seq,
                               const Acl::AclEntry& entry) {
    const Acl::AclConfigKey key{name, type};
    if (const Vorn::Ptr<Acl::AclConfig> acl = aclConfig_->acl(key)) {
        acl->entryIs(seq, entry);
        return;
    }
    // Checked on a detached ACL first, so a refused entry leaves no empty ACL behind.
    Vorn::make<Acl::AclConfig>(key)->entryIs(seq, entry);
    aclConfig_->aclIs(key)->entryIs(seq, entry);
}

void TestAgentRoot::aclRuleDel(const std::string& name, Acl::AclType type, uint32_t seq) {
    if (const Vorn::Ptr<Acl::AclConfig> acl = aclOf(name, type))
        acl->entryDel(seq);
}

void TestAgentRoot::aclDel(const std::string& name, Acl::AclType type) {
    aclConfig_->aclDel(Acl::AclConfigKey{name, type});
}

void TestAgentRoot::aclCountersEnabledIs(const std::string& name, Acl::AclType type, bool enabled) {
    const Vorn::Ptr<Acl::AclConfig> acl = aclOf(name, type);
    if (!acl)
        throw std::invalid_argument("TestAgentRoot::aclCountersEnabled: no ACL " +
                                    Acl::AclConfigKey{name, type}.str());
    acl->countersEnabledIs(enabled);
}

void TestAgentRoot::aclBindingIs(const Zamu::IntfId& intf, Acl::AclType type,
                                 Acl::AclDirection direction, const std::string& name) {
    intfConfig_->appliedAclIs(Acl::AclBinding{intf, type, direction}, name);
}

void TestAgentRoot::aclBindingDel(const Zamu::IntfId& intf, Acl::AclType type,
                                  Acl::AclDirection direction) {
    intfConfig_->appliedAclDel(Acl::AclBinding{intf, type, direction});
}

void TestAgentRoot::routedPortAclSharingIs(bool share) {
    ovinMirelAclHelper()->shareAclDataForRoutedPortsIs(share);
    status_->hwCapabilityColl()->hwCapability()->routedPortRaclSharingSupportedIs(share);
}

// ---- Faults and counters ----

TestAgentFaultPlan& TestAgentRoot::faultPlan() const {
    return *mockSmManager()->faultPlan();
}

void TestAgentRoot::faultIs(Mirel::ChipId chip, const TestAgentFault& fault) {
    faultPlan().faultIs(chip, fault);
}

void TestAgentRoot::faultDel(Mirel::ChipId chip) {
    faultPlan().faultDel(chip);
}

void TestAgentRoot::allocMaxIs(uint32_t allocMax) {
    mockSmManager()->allocMaxIs(allocMax);
}

namespace {

// The unique id the engine gave rule `seq` of the stored ACL; none when it has no such rule.
std::optional<Acl::UniqueId> uniqueIdOf(const OvinMirelAcl& acl, uint32_t seq) {
    for (const Acl::UniqueId& id : acl.ruleNum().sortedKeys()) {
        if (*acl.ruleNum(id) == seq)
            return id;
    }
    return std::nullopt;
}

}  // namespace

void TestAgentRoot::ruleCounterIs(Mirel::ChipId chip, const Ovin::AclKey& aclKey, uint32_t seq,
                                  uint64_t hits) {
    auto refuse = [&](const std::string& why) {
        throw std::invalid_argument("TestAgentRoot::ruleCounter: " + why);
    };
    const Vorn::Ptr<TestAgentMockSm> mock = mockSmColl()->mockSm(chip);
    if (!mock)
        refuse(chipName(chip) + " has no driver mock");
    const Vorn::Ptr<OvinMirelAcl> acl = status_->aclColl()->acl(aclKey);
    const std::optional<Acl::UniqueId> id = acl ? uniqueIdOf(*acl, seq) : std::nullopt;
    if (!id)
        refuse(keyText(aclKey) + " has no rule " + std::to_string(seq));
    const Vorn::Ptr<AclIdResponse> response =
        status_->glueStatus()->aclIdResponseColl()->chipAclIdResponse(chip);
    const Vorn::Ptr<Mirel::AclIdTypeSet> ids = response ? response->response(aclKey) : nullptr;
    if (!ids || ids->aclIdTypes() == 0)
        refuse(keyText(aclKey) + " has no ACL id on " + chipName(chip));
    Mirel::ProtocolType half = Mirel::protocolAll_;
    if (!ids->aclIdType(Mirel::protocolAll_)) {
        half = Mirel::protocolNonTcp_;
        for (const auto& [index, rule] : acl->ipRuleById()) {
            if (index.uniqueId == *id && Mirel::isTcpRule(rule))
                half = Mirel::protocolTcp_;
        }
    }
    const Mirel::AclId* aclId = ids->aclIdType(half);
    if (!aclId)
        refuse(keyText(aclKey) + " has no " + Mirel::protocolTypeName(half) + " ACL id on " +
               chipName(chip));
    mock->ruleCounterIs(*aclId, *id, hits);
}

uint64_t TestAgentRoot::ruleCounters(const Ovin::AclKey& aclKey, uint32_t seq) {
    const Vorn::Ptr<OvinMirelAcl> acl = status_->aclColl()->acl(aclKey);
    const std::optional<Acl::UniqueId> id = acl ? uniqueIdOf(*acl, seq) : std::nullopt;
    if (!id)
        return 0;
    Ovin::AclData data;
    data.key = aclKey;
    return ovinMirelAclHelper()->aclRuleCountersSinceLastPoll(data, seq, *id);
}

bool TestAgentRoot::aclCountersAllocated(const Ovin::AclKey& aclKey) const {
    Ovin::AclData data;
    data.key = aclKey;
    return ovinMirelAclHelper()->aclCountersAllocated(data);
}

// ---- The event loop ----

size_t TestAgentRoot::runPass() {
    const size_t fired = timerWheel_->runPass();
    ++passes_;
    if (glueChecker_ && !glueViolation_) {
        if (std::optional<std::string> broken = glueChecker_->check()) {
            std::ostringstream os;
            os << "at " << clock_->now() << ": " << *broken;
            glueViolation_ = os.str();
            FLINQ(th, 2, "TestAgentRoot glue invariant broken " << *glueViolation_);
        }
    }
    if (afterPass_)
        afterPass_();
    return fired;
}

void TestAgentRoot::runUntilIdle() {
    for (int i = 0; i < kMaxPasses; ++i) {
        if (timerWheel_->nextExpiry() <= clock_->now()) {
            runPass();
            continue;
        }
        const size_t periodic = capacitySm_ && capacitySm_->pollTimer().armed() ? 1 : 0;
        if (timerWheel_->armedCount() <= periodic)
            return;
        clock_->nowIs(timerWheel_->nextExpiry());
    }
    throw std::runtime_error("TestAgentRoot: the event loop does not settle");
}

void TestAgentRoot::runUntil(Vorn::Seconds until) {
    if (!(until >= clock_->now()))
        throw std::invalid_argument("TestAgentRoot::runUntil: a time before now");
    for (int i = 0; i < kMaxPasses; ++i) {
        if (timerWheel_->nextExpiry() <= clock_->now()) {
            runPass();
            continue;
        }
        const Vorn::Seconds next = timerWheel_->nextExpiry();
        if (next == Vorn::kInfinity || next > until) {
            if (until != Vorn::kInfinity)
                clock_->nowIs(until);
            return;
        }
        clock_->nowIs(next);
    }
    throw std::runtime_error("TestAgentRoot: the event loop does not settle");
}

void TestAgentRoot::runFor(Vorn::Seconds dt) {
    runUntil(clock_->now() + dt);
}

void TestAgentRoot::glueCheckIs(bool on) {
    if (!on) {
        glueChecker_.reset();
        return;
    }
    if (!glueChecker_)
        glueChecker_ = std::make_unique<GlueChecker>(ovinMirelGlueSm());
}

// ---- Reading back ----

Vorn::Ptr<Mirel::ChipDataFlowConfig> TestAgentRoot::loadedDataFlow(Mirel::ChipId chip) const {
    const Vorn::Ptr<Mirel::ChipConfig> config = status_->pDConfig()->chipConfig(chip);
    return config ? config->chipDataFlowConfig() : nullptr;
}

Vorn::Ptr<TestAgentRoot> testAgentRootFactory(const Vorn::Name& name,
                                              Brix::TimerWheel& timerWheel) {
    return Vorn::make<TestAgentRoot>(name, timerWheel);
}

}  // namespace OvinMirel
