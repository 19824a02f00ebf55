#include "ovinmirel/glue/OvinMirelMappingLoaderSm.h"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "platform/flinq/Flinq.h"
#include "platform/vorn/Assert.h"
#include "platform/vorn/Exception.h"

namespace OvinMirel {

namespace {

Flinq::Handle th("OvinMirelMappingLoaderSm");

// Each key once, in key order.
template <class K>
void sortUnique(std::vector<K>& keys) {
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
}

// Appends a key to a queue. Before the queue grows its repeats go, so a queue held through a
// long cycle stays within twice its keys; the first key makes room for the usual handful.
template <class K>
void enqueue(std::vector<K>& queue, const K& key) {
    if (queue.size() == queue.capacity()) {
        sortUnique(queue);
        queue.reserve(std::max<size_t>(8, 2 * queue.size()));
    }
    queue.push_back(key);
}

// Takes a queue for a run.
template <class K>
std::vector<K> take(std::vector<K>& queue) {
    std::vector<K> keys = std::exchange(queue, {});
    sortUnique(keys);
    return keys;
}

// Pass 1 for one table: every queued key the input holds gets the input's value. Only the
// keys the input lacks stay in the queue, for pass 2 (one the input loses in between through
// a watcher of the output is queued afresh, and cleared by the next run).
template <class K, class In, class Set>
void setPass(Mirel::ChipId chip, const char* table, std::vector<K>& queue, const In& in,
             Set&& set) {
    size_t lacking = 0;
    for (size_t i = 0; i < queue.size(); ++i) {
        const K& key = queue[i];
        if (const auto* value = in.find(key)) {
            FLINQ(th, 8,
                  "Chip-" << chip << " handleQueueProcessTimer setting " << table << "[" << key
                          << "] to " << *value);
            set(key, *value);
        } else {
            if (lacking != i)
                queue[lacking] = std::move(queue[i]);
            ++lacking;
        }
    }
    queue.erase(queue.begin() + std::ptrdiff_t(lacking), queue.end());
}

// Pass 2 for one table: every key left by pass 1 that the input still lacks goes from the
// output.
template <class K, class In, class Del>
void clearPass(Mirel::ChipId chip, const char* table, const std::vector<K>& queue, const In& in,
               Del&& del) {
    for (const K& key : queue) {
        if (!in.contains(key)) {
            FLINQ(th, 8,
                  "Chip-" << chip << " handleQueueProcessTimer clearing " << table << "[" << key
                          << "]");
            del(key);
        }
    }
}

// Queues every key on which one table of the input and of the output differ.
template <class K, class Map>
void queueTableDifferences(std::vector<K>& queue, const Map& in, const Map& out) {
    for (const auto& entry : in) {
        const auto* held = out.find(entry.first);
        if (!held || !(*held == entry.second))
            queue.push_back(entry.first);
    }
    for (const auto& entry : out) {
        if (!in.contains(entry.first))
            queue.push_back(entry.first);
    }
}

}  // namespace

MappingLoaderSm::MappingLoaderSm(
    Mirel::ChipId chipId, const Vorn::Ptr<const Mirel::ChipDataFlowConfig>& inputChipDataFlowConfig,
    const Vorn::Ptr<Mirel::ChipDataFlowConfig>& outputChipDataFlowConfig,
    const Vorn::Ptr<const GlueStatus>& glueStatus, Brix::TimerWheel& timerWheel)
    : Vorn::StateMachine(th),
      chipId_(chipId),
      inputChipDataFlowConfig_(required(inputChipDataFlowConfig, "inputChipDataFlowConfig")),
      outputChipDataFlowConfig_(required(outputChipDataFlowConfig, "outputChipDataFlowConfig")),
      glueStatus_(required(glueStatus, "glueStatus")),
      queueProcessTimer_(timerWheel, [this] { handleQueueProcessTimer(); }) {}

void MappingLoaderSm::reinstantiate(
    const Vorn::Ptr<const Mirel::ChipDataFlowConfig>& inputChipDataFlowConfig,
    const Vorn::Ptr<Mirel::ChipDataFlowConfig>& outputChipDataFlowConfig,
    const Vorn::Ptr<const GlueStatus>& glueStatus, Brix::TimerWheel& timerWheel) const {
    requireSameReference("inputChipDataFlowConfig", inputChipDataFlowConfig_,
                         inputChipDataFlowConfig);
    requireSameReference("outputChipDataFlowConfig", outputChipDataFlowConfig_,
                         outputChipDataFlowConfig);
    requireSameReference("glueStatus", glueStatus_, glueStatus);
    if (&timerWheel != &queueProcessTimer_.wheel())
        Vorn::throwPointerReinstantiation("timerWheel", "Brix::TimerWheel");
}

void MappingLoaderSm::handleInitialized() {
    FLINQ(th, 2, "Chip-" << chipId_ << " handleInitialized");
    StateMachine::handleInitialized();
    const Mirel::ChipDataFlowConfig& in = *inputChipDataFlowConfig_;
    intfSub_ = in.intfToHwAclIndexNotify([this](const Zamu::IntfId& k) { handleIntfId(k); });
    routedPortSub_ =
        in.routedPortToHwAclIndexNotify([this](const Zamu::IntfId& k) { handleRoutedPort(k); });
    vlanSub_ = in.vlanToHwAclIndexNotify([this](const Bridging::VlanId& k) { handleVlan(k); });
    subIntfSub_ =
        in.subIntfToHwAclIndexNotify([this](const Zamu::IntfId& k) { handleSubIntfId(k); });
    chipRuleListIdKeySub_ = in.chipRuleListKeyToIdNotify(
        [this](const Mirel::ChipRuleListIdKey& k) { handleChipRuleListIdKey(k); });
    globalAclControlSub_ = in.globalAclControlNotify([this] { handleGlobalAclControl(); });
    glueSmStateSub_ = glueStatus_->glueSmStateNotify([this] { handleGlueStatus(); });

    Mirel::ChipDataFlowConfig& out = *outputChipDataFlowConfig_;
    out.intfToHwAclIndexDelAll();
    out.vlanToHwAclIndexDelAll();
    out.subIntfToHwAclIndexDelAll();
    out.chipRuleListKeyToIdDelAll();
    // routedPortToHwAclIndex is deliberately kept: an entry the input does not hold survives
    // a restart of the loader. That is the program's rule and is kept.

    for (const auto& entry : in.intfToHwAclIndex())
        handleIntfId(entry.first);
    for (const auto& entry : in.routedPortToHwAclIndex())
        handleRoutedPort(entry.first);
    for (const auto& entry : in.vlanToHwAclIndex())
        handleVlan(entry.first);
    for (const auto& entry : in.subIntfToHwAclIndex())
        handleSubIntfId(entry.first);
    for (const auto& entry : in.chipRuleListKeyToId())
        handleChipRuleListIdKey(entry.first);
    handleQueueProcessTimer();
}

void MappingLoaderSm::handleDelete() {
    FLINQ(th, 2, "Chip-" << chipId_ << " handleDelete");
    intfSub_.reset();
    routedPortSub_.reset();
    vlanSub_.reset();
    subIntfSub_.reset();
    chipRuleListIdKeySub_.reset();
    globalAclControlSub_.reset();
    glueSmStateSub_.reset();
    queueProcessTimer_.expiryIs(Vorn::kInfinity);
    StateMachine::handleDelete();
}

void MappingLoaderSm::armQueueProcessTimer() {
    // The absolute time 0.0, deliberately: always in the past, so the timer fires at the next
    // service of the wheel and one run handles every change of the current pass. Armed once
    // for all the changes until it fires: arming it again would only move it in the wheel.
    if (!queueProcessTimer_.armed())
        queueProcessTimer_.expiryIs(0.0);
}

void MappingLoaderSm::handleIntfId(const Zamu::IntfId& intf) {
    FLINQ(th, 8, "Chip-" << chipId_ << " handleIntfId " << intf);
    VORN_ASSERT(initialized());
    enqueue(intfQueue_, intf);
    armQueueProcessTimer();
}

void MappingLoaderSm::handleRoutedPort(const Zamu::IntfId& intf) {
    FLINQ(th, 8, "Chip-" << chipId_ << " handleRoutedPort " << intf);
    VORN_ASSERT(initialized());
    enqueue(routedPortQueue_, intf);
    armQueueProcessTimer();
}

void MappingLoaderSm::handleVlan(const Bridging::VlanId& vlan) {
    FLINQ(th, 8, "Chip-" << chipId_ << " handleVlan " << vlan);
    VORN_ASSERT(initialized());
    enqueue(vlanQueue_, vlan);
    armQueueProcessTimer();
}

void MappingLoaderSm::handleSubIntfId(const Zamu::IntfId& intf) {
    FLINQ(th, 8, "Chip-" << chipId_ << " handleSubIntfId " << intf);
    VORN_ASSERT(initialized());
    enqueue(subIntfQueue_, intf);
    armQueueProcessTimer();
}

void MappingLoaderSm::handleChipRuleListIdKey(const Mirel::ChipRuleListIdKey& key) {
    FLINQ(th, 8, "Chip-" << chipId_ << " handleChipRuleListIdKey " << key);
    VORN_ASSERT(initialized());
    enqueue(chipRuleListIdKeyQueue_, key);
    armQueueProcessTimer();
}

void MappingLoaderSm::handleGlobalAclControl() {
    FLINQ(th, 8,
          "Chip-" << chipId_ << " handleGlobalAclControl "
                  << inputChipDataFlowConfig_->globalAclControl());
    VORN_ASSERT(initialized());
    globalAclControlChanged_ = true;
    armQueueProcessTimer();
}

void MappingLoaderSm::handleGlueStatus() {
    FLINQ(th, 8, "Chip-" << chipId_ << " handleGlueStatus");
    VORN_ASSERT(initialized());
    switch (glueStatus_->glueSmState()) {
        case aborting_:
        case fail_:
        case mappingLoader_:
            handleQueueProcessTimer();
            return;
        case idle_:
            armQueueProcessTimer();
            return;
        case unknown_:
        case aclIdAlloc_:
        case aclIdAllocFail_:
        case computing_:
        case loading_:
        case success_:
        case blockIntf_:
        case unblockIntf_:
            break;
    }
    FLINQ(th, 8, "Chip-" << chipId_ << " handleGlueStatus not in stable state, returning");
}

void MappingLoaderSm::handleQueueProcessTimer() {
    const GlueSmState state = glueStatus_->glueSmState();
    FLINQ(th, 8, "Chip-" << chipId_ << " handleQueueProcessTimer state: " << state);
    switch (state) {
        case idle_:
        case success_:
        case mappingLoader_:
            break;
        case aborting_:
        case fail_:
            FLINQ(th, 8, "Chip-" << chipId_ << " handleQueueProcessTimer fail, remove all pending");
            // The five mapping queues only: a control change is no mapping of the aborted
            // computation and is still carried over by the next run.
            if (clearQueues())
                resyncPending_ = true;
            return;
        case unknown_:
        case aclIdAlloc_:
        case aclIdAllocFail_:
        case computing_:
        case loading_:
        case blockIntf_:
        case unblockIntf_:
        default:
            FLINQ(th, 8,
                  "Chip-" << chipId_ << " handleQueueProcessTimer not in stable state, returning");
            return;
    }
    if (state == idle_ && std::exchange(resyncPending_, false))
        queueDifferences();
    // The run works on what is queued now; a change made by a watcher of the output while it
    // runs is queued afresh (and the timer armed) instead of being lost with this run's keys.
    std::vector<Zamu::IntfId> intfQueue = take(intfQueue_);
    std::vector<Zamu::IntfId> routedPortQueue = take(routedPortQueue_);
    std::vector<Bridging::VlanId> vlanQueue = take(vlanQueue_);
    std::vector<Zamu::IntfId> subIntfQueue = take(subIntfQueue_);
    std::vector<Mirel::ChipRuleListIdKey> chipRuleListIdKeyQueue = take(chipRuleListIdKeyQueue_);
    const bool globalAclControlChanged = std::exchange(globalAclControlChanged_, false);
    const Mirel::ChipDataFlowConfig& in = *inputChipDataFlowConfig_;
    Mirel::ChipDataFlowConfig& out = *outputChipDataFlowConfig_;
    // Rule list ids are defined before any place points at them ...
    setPass(chipId_, "chipRuleListKeyToId", chipRuleListIdKeyQueue, in.chipRuleListKeyToId(),
            [&](const auto& k, const auto& v) { out.chipRuleListKeyToIdIs(k, v); });
    setPass(chipId_, "intfToHwAclIndex", intfQueue, in.intfToHwAclIndex(),
            [&](const auto& k, const auto& v) { out.intfToHwAclIndexIs(k, v); });
    setPass(chipId_, "routedPortToHwAclIndex", routedPortQueue, in.routedPortToHwAclIndex(),
            [&](const auto& k, const auto& v) { out.routedPortToHwAclIndexIs(k, v); });
    setPass(chipId_, "vlanToHwAclIndex", vlanQueue, in.vlanToHwAclIndex(),
            [&](const auto& k, const auto& v) { out.vlanToHwAclIndexIs(k, v); });
    setPass(chipId_, "subIntfToHwAclIndex", subIntfQueue, in.subIntfToHwAclIndex(),
            [&](const auto& k, const auto& v) { out.subIntfToHwAclIndexIs(k, v); });
    // ... and removed only after no place points at them any more.
    clearPass(chipId_, "intfToHwAclIndex", intfQueue, in.intfToHwAclIndex(),
              [&](const auto& k) { out.intfToHwAclIndexDel(k); });
    clearPass(chipId_, "routedPortToHwAclIndex", routedPortQueue, in.routedPortToHwAclIndex(),
              [&](const auto& k) { out.routedPortToHwAclIndexDel(k); });
    clearPass(chipId_, "vlanToHwAclIndex", vlanQueue, in.vlanToHwAclIndex(),
              [&](const auto& k) { out.vlanToHwAclIndexDel(k); });
    clearPass(chipId_, "subIntfToHwAclIndex", subIntfQueue, in.subIntfToHwAclIndex(),
              [&](const auto& k) { out.subIntfToHwAclIndexDel(k); });
    clearPass(chipId_, "chipRuleListKeyToId", chipRuleListIdKeyQueue, in.chipRuleListKeyToId(),
              [&](const auto& k) { out.chipRuleListKeyToIdDel(k); });
    if (globalAclControlChanged) {
        FLINQ(th, 8,
              "Chip-" << chipId_ << " handleQueueProcessTimer setting globalAclControl to "
                      << in.globalAclControl());
        out.globalAclControlIs(in.globalAclControl());
    }
}

bool MappingLoaderSm::clearQueues() {
    const bool held = !intfQueue_.empty() || !routedPortQueue_.empty() || !vlanQueue_.empty() ||
                      !subIntfQueue_.empty() || !chipRuleListIdKeyQueue_.empty();
    intfQueue_.clear();
    routedPortQueue_.clear();
    vlanQueue_.clear();
    subIntfQueue_.clear();
    chipRuleListIdKeyQueue_.clear();
    return held;
}

void MappingLoaderSm::queueDifferences() {
    FLINQ(th, 8,
          "Chip-" << chipId_
                  << " handleQueueProcessTimer reconciling the keys an aborted cycle dropped");
    const Mirel::ChipDataFlowConfig& in = *inputChipDataFlowConfig_;
    const Mirel::ChipDataFlowConfig& out = *outputChipDataFlowConfig_;
    queueTableDifferences(intfQueue_, in.intfToHwAclIndex(), out.intfToHwAclIndex());
    queueTableDifferences(routedPortQueue_, in.routedPortToHwAclIndex(),
                          out.routedPortToHwAclIndex());
    queueTableDifferences(vlanQueue_, in.vlanToHwAclIndex(), out.vlanToHwAclIndex());
    queueTableDifferences(subIntfQueue_, in.subIntfToHwAclIndex(), out.subIntfToHwAclIndex());
    queueTableDifferences(chipRuleListIdKeyQueue_, in.chipRuleListKeyToId(),
                          out.chipRuleListKeyToId());
    if (in.globalAclControl() != out.globalAclControl())
        globalAclControlChanged_ = true;
}

Vorn::Ptr<MappingLoaderSm> mappingLoaderSmFactory(
    Mirel::ChipId chipId, const Vorn::Ptr<const Mirel::ChipDataFlowConfig>& inputChipDataFlowConfig,
    const Vorn::Ptr<Mirel::ChipDataFlowConfig>& outputChipDataFlowConfig,
    const Vorn::Ptr<const GlueStatus>& glueStatus, Brix::TimerWheel& timerWheel) {
    return Vorn::make<MappingLoaderSm>(chipId, inputChipDataFlowConfig, outputChipDataFlowConfig,
                                       glueStatus, timerWheel);
}

Vorn::Ptr<MappingLoaderSmColl> mappingLoaderSmCollFactory(const Vorn::Name& name) {
    return Vorn::make<MappingLoaderSmColl>(name);
}

}  // namespace OvinMirel
