// The state-machine base: reference checks with the system's texts, the life cycle, and
// machine collections that stop a machine before dropping it.

#include "platform/vorn/StateMachine.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/vorn/Hash.h"

namespace {

Flinq::Handle th("VornStateMachineTest");

class Input : public Vorn::Entity {
    VORN_ENTITY("Test::Input")
};

std::vector<std::string> events;

class Machine : public Vorn::StateMachine {
    VORN_ENTITY("Test::Machine")
  public:
    Machine(int id, const Vorn::Ptr<Input>& input)
        : Vorn::StateMachine(th), id_(id), input_(required(input, "input")) {}
    void reinstantiate(const Vorn::Ptr<Input>& input) const {
        requireSameReference("input", input_, input);
    }
    void handleInitialized() override {
        StateMachine::handleInitialized();
        events.push_back("init " + std::to_string(id_));
    }
    void handleDelete() override {
        StateMachine::handleDelete();
        events.push_back("delete " + std::to_string(id_));
    }

  private:
    int id_;
    Vorn::Ptr<Input> input_;
};

class MachineColl : public Vorn::Entity {
    VORN_ENTITY("Test::MachineColl")
  public:
    VORN_MACHINE_MAP(int, Machine, sm)
};

TEST(VornStateMachine, ReferencesAreCheckedWithTheSystemTexts) {
    try {
        Vorn::make<Machine>(1, nullptr);
        ADD_FAILURE() << "no error";
    } catch (const Vorn::NullPointerException& e) {
        EXPECT_STREQ(e.what(),
                     "null _input parameter to mutator for Test::Machine::input not allowed");
    }
    auto coll = Vorn::make<MachineColl>();
    auto input = Vorn::make<Input>();
    Vorn::Ptr<Machine> m = coll->smIs(1, input);
    EXPECT_EQ(coll->smIs(1, input), m);  // same reference: the machine as it is
    try {
        coll->smIs(1, Vorn::make<Input>());
        ADD_FAILURE() << "no error";
    } catch (const Vorn::ReinstantiationException& e) {
        EXPECT_STREQ(e.what(),
                     "Reinstantiating the pointer interface where constructor parameter "
                     "attribute _input has a different value of Test::Input");
    }
    EXPECT_EQ(coll->sm(1), m);
}

TEST(VornStateMachine, MachineCollectionsStopAMachineBeforeDroppingIt) {
    events.clear();
    auto coll = Vorn::make<MachineColl>();
    auto input = Vorn::make<Input>();
    for (int id : {3, 1, 2})
        coll->smIs(id, input)->handleInitialized();
    Vorn::Ptr<Machine> held = coll->sm(1);
    EXPECT_TRUE(held->initialized());
    coll->smDel(1);
    // Someone still holds it, but it no longer runs.
    EXPECT_FALSE(held->initialized());
    coll->smDelAll();
    EXPECT_EQ(events, (std::vector<std::string>{"init 3", "init 1", "init 2", "delete 1",
                                                "delete 2", "delete 3"}));
    EXPECT_EQ(coll->sms(), 0u);
}

// Deleting a machine may let go of the collection's last other reference (a watcher told of
// the deletion drops it): deleting them all still deletes every one and reads nothing freed.
TEST(VornStateMachine, DeletingEveryMachineOutlivesAWatcherThatDropsTheCollection) {
    events.clear();
    auto coll = Vorn::make<MachineColl>();
    auto input = Vorn::make<Input>();
    for (int id : {1, 2, 3})
        coll->smIs(id, input)->handleInitialized();
    Vorn::Subscription dropper = coll->smNotify([&coll](int) { coll = nullptr; });
    MachineColl& machines = *coll;
    machines.smDelAll();
    EXPECT_EQ(coll, nullptr);
    EXPECT_EQ(events, (std::vector<std::string>{"init 1", "init 2", "init 3", "delete 1",
                                                "delete 2", "delete 3"}));
}

TEST(VornHash, StateIsOrderSensitiveAndOneAtATimeIsJenkins) {
    auto hashOf = [](std::initializer_list<uint32_t> words) {
        Vorn::Hash::State s;
        for (uint32_t w : words)
            Vorn::Hash::mix(s, w);
        return Vorn::Hash::result(s);
    };
    EXPECT_EQ(hashOf({1, 2, 3}), hashOf({1, 2, 3}));
    EXPECT_NE(hashOf({1, 2, 3}), hashOf({3, 2, 1}));
    EXPECT_NE(hashOf({0}), hashOf({0, 0}));  // the number of words counts
    // Published values of Jenkins' one-at-a-time hash.
    EXPECT_EQ(Vorn::Hash::oneAtATime("a"), 0xca2e9442u);
    EXPECT_EQ(Vorn::Hash::oneAtATime("The quick brown fox jumps over the lazy dog"), 0x519e91f5u);
}

}  // namespace
