#pragma once
// The one place where faults enter the test agent: a per-chip plan that the chip mocks
// (TestAgentMockSm) consult for every transform answer they give. The library proper knows
// nothing of it; a test, a randomized reliability run or a simulator scenario sets it.
//
//   plan->faultIs(Mirel::ChipId(1), TestAgentFault::failing(Mirel::stageTcamFull_)
//                                       .onXform(Mirel::xformSrcPortRange_).times(2));
//   plan->faultIs(Mirel::ChipId(2), TestAgentFault::parse("late:1.5 twice"));
//
// A fault changes the answers of its chip: it fails them with a code, delays them by virtual
// time (through the timer wheel), reports them twice, or drops them; the parts combine (a
// late failure, a doubled late answer). It may be limited to one transform, and to the next
// N answers it applies to; a fault that is used up leaves the plan.

#include <cstdint>
#include <optional>
#include <ostream>
#include <string_view>

#include "platform/mirel/ChipId.h"
#include "platform/mirel/PDConfig.h"
#include "platform/mirel/StageErrorCode.h"
#include "platform/vorn/Clock.h"
#include "platform/vorn/Entity.h"

namespace OvinMirel {

struct TestAgentFault {
    // Not success: the answer reports this code instead of the mock's own outcome.
    Mirel::StageErrorCode failWith = Mirel::stageSuccess_;
    // Above 0: the answer is written this many seconds of virtual time after the request.
    Vorn::Seconds delay = 0.0;
    // The answer is reported a second time (its `answers` count up), repeatPasses passes of
    // the wheel after the first (1: the next pass). More than one lets a repeat fall behind
    // the root's own answer, into loading or aborting.
    bool answerTwice = false;
    uint32_t repeatPasses = 1;
    // No answer at all: the request is lost.
    bool lost = false;
    // Only answers for this transform; every transform when unset.
    std::optional<Mirel::XformType> xform;
    // The answers it applies to before it is used up; 0: every one until it is removed.
    uint32_t count = 0;

    static TestAgentFault failing(Mirel::StageErrorCode code);
    static TestAgentFault late(Vorn::Seconds delay);
    static TestAgentFault twice();
    static TestAgentFault losing();
    TestAgentFault onXform(Mirel::XformType t) const;
    TestAgentFault times(uint32_t n) const;
    TestAgentFault alsoFailing(Mirel::StageErrorCode code) const;
    TestAgentFault alsoLate(Vorn::Seconds delay) const;
    TestAgentFault alsoTwice(uint32_t passes = 1) const;

    // Range errors (Vorn::RangeException): "TestAgentFault::delay < 0 not allowed" (also for
    // a delay that is not a finite number), "TestAgentFault::xform > 8 not allowed",
    // "TestAgentFault::repeatPasses < 1 not allowed".
    void check() const;

    // The scenario form: blank-separated words, any order: "fail:<code name>" (the names of
    // Mirel::stageErrorCodeName), "late:<seconds>", "twice", "twice:<passes>", "lost",
    // "xform:<transform configuration name>" (Mirel::xformConfigName), "count:<n>", and
    // "none", which adds nothing.
    // Throws std::invalid_argument "TestAgentFault: cannot read '<word>'" for anything else,
    // and the range errors of check().
    static TestAgentFault parse(std::string_view text);

    bool operator==(const TestAgentFault&) const = default;
};

// The scenario form; "none" for a fault that changes nothing.
std::ostream& operator<<(std::ostream& os, const TestAgentFault& f);

class TestAgentFaultPlan : public Vorn::Entity {
    VORN_ENTITY("OvinMirel::TestAgentFaultPlan")
  public:
    explicit TestAgentFaultPlan(const Vorn::Name& name) : name_(name) {}
    const Vorn::Name& name() const { return name_; }

    // One fault per chip. faultIs checks the fault first (check()); a refused fault leaves the
    // plan as it was.
    const Vorn::MapField<Mirel::ChipId, TestAgentFault, Vorn::Ordered>& fault() const {
        return fault_;
    }
    const TestAgentFault* fault(Mirel::ChipId chip) const { return fault_.find(chip); }
    size_t faults() const { return fault_.size(); }
    void faultIs(Mirel::ChipId chip, const TestAgentFault& f);
    void faultDel(Mirel::ChipId chip) { fault_.del(chip); }
    void faultDelAll() { fault_.delAll(); }
    template <class F>
    [[nodiscard]] Vorn::Subscription faultNotify(F&& f) const {
        return fault_.notify(std::forward<F>(f));
    }

    // For the mock of `chip`, about to answer for transform t: the fault that applies to this
    // answer, if any, counted as used (the chip's entry goes when its count runs out).
    std::optional<TestAgentFault> takeFault(Mirel::ChipId chip, Mirel::XformType t);

  private:
    const Vorn::Name name_;
    Vorn::MapField<Mirel::ChipId, TestAgentFault, Vorn::Ordered> fault_{*this};
};

Vorn::Ptr<TestAgentFaultPlan> testAgentFaultPlanFactory(const Vorn::Name& name);

}  // namespace OvinMirel
