#include "CoreKestly/Actions/DCIAction.h"
#include "CoreKestly/CoreKestlyKeys.h"
#include "CoreKestly/DCLog/DCLogger.h"
#include "support/EventRecorder.h"
#include "support/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

// Every status event reaches a real listener on the main thread; the bus is gone again after
// each test, so no test sees another's events.
class DCIActionEventsTest : public ::testing::Test {
protected:
    void SetUp() override { DCIEventManager::addListener(recorder_); }
    void TearDown() override {
        DCIEventManager::removeListener(recorder_);
        EXPECT_TRUE(recorder_->allOnMainThread);
    }

    // The status events of `action`, in arrival order, once `count` of them have arrived.
    std::vector<StatusChange> statusChangesOf(const std::shared_ptr<DCIAction>& action, size_t count) {
        pumpMainLoopUntil([&] { return recorder_->statusChangesOf(action).size() >= count; });
        return recorder_->statusChangesOf(action);
    }

    // Delivers whatever is queued, so that an event that should not exist would have arrived.
    void deliverPending() { pumpMainLoopBriefly(); }

    std::shared_ptr<EventRecorder> recorder_ = std::make_shared<EventRecorder>();
};

// The entries of the log file that contain `text`.
size_t logLinesContaining(const std::string& text) {
    DCLogger::sharedLogger().flush();
    const std::string log = readWholeFile(DCLogger::sharedLogger().currentLogFileURL());
    size_t count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
    return count;
}

}  // namespace

TEST(DCIAction, StartsUndefinedWithPriorityOne) {
    const auto before = DCIDate::now();
    const auto action = DCIAction::init();
    EXPECT_GE(action->timestamp(), before);
    EXPECT_LE(action->timestamp(), DCIDate::now());
    EXPECT_EQ(action->category(), 0u);
    EXPECT_EQ(action->type(), 0u);
    EXPECT_EQ(action->priority(), 1u);
    EXPECT_EQ(action->status(), DCIActionStatusUndefined);
    EXPECT_EQ(action->parent(), nullptr);
    EXPECT_TRUE(action->children().empty());
    EXPECT_EQ(action->root(), action);
    EXPECT_FALSE(action->contextObjectForKey(kDCIError).has_value());
}

TEST(DCIAction, CommonTypeIsTheTypeOnlyInTheCommonCategory) {
    const auto download = DCIAction::initWithCategory(DCIActionCategoryCommon, DCIActionTypeDownload);
    EXPECT_EQ(download->commonType(), DCIActionTypeDownload);
    EXPECT_TRUE(download->isCommonActionOfType(DCIActionTypeDownload));
    EXPECT_FALSE(download->isCommonActionOfType(DCIActionTypeMoveFile));

    const auto hosts = DCIAction::initWithCategory(3, DCIActionTypeDownload);
    EXPECT_EQ(hosts->category(), 3u);
    EXPECT_EQ(hosts->type(), DCIActionTypeDownload);
    EXPECT_EQ(hosts->commonType(), 0u);
    EXPECT_TRUE(hosts->isOfCategory(3, DCIActionTypeDownload));
    EXPECT_FALSE(hosts->isOfCategory(3, DCIActionTypeCopyFile));
    EXPECT_FALSE(hosts->isCommonActionOfType(DCIActionTypeDownload));
}

TEST(DCIAction, ClassificationLooksUpTheAncestryNeverDown) {
    const auto download = DCIAction::initWithCategory(DCIActionCategoryCommon, DCIActionTypeDownload);
    const auto group = DCIAction::initWithCategory(7, DCIActionTypeMoveFile);
    const auto step = DCIAction::initWithCategory(9, 2);
    group->setParent(download);
    step->setParent(group);

    EXPECT_TRUE(step->isPartOfCommonActionOfType(DCIActionTypeDownload));
    EXPECT_FALSE(step->isCommonActionOfType(DCIActionTypeDownload));
    EXPECT_TRUE(step->isPartOfCategory(7, DCIActionTypeMoveFile));
    EXPECT_TRUE(step->isPartOfCategory(9, 2));
    // Category 7's type 1 is not the common move.
    EXPECT_FALSE(step->isPartOfCommonActionOfType(DCIActionTypeMoveFile));
    EXPECT_FALSE(download->isPartOfCategory(9, 2));
}

TEST(DCIAction, ContextStoresReplacesAndRemoves) {
    const auto action = DCIAction::initWithCategory(DCIActionCategoryCommon, DCIActionTypeMoveFile);
    action->setContextObject("/root/a.wav", kDCIFileManagerMoveFrom);
    action->setContextObject(DCIValue(int64_t{5}), "count");
    action->setContextObject(DCINull(), "nothingYet");
    EXPECT_EQ(*action->contextObjectForKey("sourcePath")->string(), "/root/a.wav");
    EXPECT_TRUE(action->contextObjectForKey("nothingYet")->isNull());

    action->setContextObject("/root/b.wav", kDCIFileManagerMoveFrom);
    EXPECT_EQ(*action->contextObjectForKey(kDCIFileManagerMoveFrom)->string(), "/root/b.wav");

    action->addContextEntriesFromDictionary({{"count", int64_t{6}}, {std::string(kDCIFileManagerMoveTo), "/root/c.wav"}});
    EXPECT_EQ(action->contextObjectForKey("count")->int64Value(), 6);
    EXPECT_EQ(*action->contextObjectForKey(kDCIFileManagerMoveTo)->string(), "/root/c.wav");
    EXPECT_EQ(*action->contextObjectForKey(kDCIFileManagerMoveFrom)->string(), "/root/b.wav");

    action->removeContextObjectForKey("count");
    action->removeContextObjectForKey("neverThere");
    action->removeContextObjectForKey(std::nullopt);
    EXPECT_FALSE(action->contextObjectForKey("count").has_value());
    EXPECT_FALSE(action->contextObjectForKey(std::nullopt).has_value());
    EXPECT_TRUE(action->contextObjectForKey(kDCIFileManagerMoveTo).has_value());

    // Objects are shared, not copied.
    const auto other = DCIAction::init();
    action->setContextObject(other, "other");
    EXPECT_EQ(action->contextObjectForKey("other")->object<DCIAction>(), other);
}

TEST(DCIAction, ANilObjectIsRefusedWithALogLineAndANilKeySilently) {
    const auto action = DCIAction::init();
    action->setContextObject("/kept", kDCIFileManagerMoveFrom);

    const size_t refusalsBefore = logLinesContaining("Not setting nil object");
    action->setContextObject(std::nullopt, kDCIFileManagerMoveFrom);
    EXPECT_EQ(*action->contextObjectForKey(kDCIFileManagerMoveFrom)->string(), "/kept");
    EXPECT_EQ(logLinesContaining(": Not setting nil object for key sourcePath\n"), 1u);

    action->setContextObject(std::shared_ptr<DCIAction>(), "missingParent");
    action->setContextObject(std::optional<std::string>(), "missingPath");
    action->setContextObject(static_cast<const char*>(nullptr), "missingText");
    action->setContextObject(nullptr, "missingAnything");
    for (const char* key : {"missingParent", "missingPath", "missingText", "missingAnything"}) {
        EXPECT_FALSE(action->contextObjectForKey(key).has_value()) << key;
        EXPECT_EQ(logLinesContaining(std::string(": Not setting nil object for key ") + key + "\n"), 1u) << key;
    }

    action->setContextObject("orphan", std::nullopt);
    EXPECT_EQ(logLinesContaining("Not setting nil object"), refusalsBefore + 5);
    EXPECT_EQ(action->description().find("orphan"), std::string::npos);
}

TEST(DCIAction, ContextIsSafeToShareBetweenThreads) {
    const auto action = DCIAction::init();
    constexpr int kKeysPerWriter = 400;
    std::atomic<bool> writing{true};
    std::vector<std::thread> writers;
    for (int writer = 0; writer < 2; ++writer) {
        writers.emplace_back([&, writer] {
            for (int i = 0; i < kKeysPerWriter; ++i) {
                const std::string key = std::to_string(writer) + "-" + std::to_string(i);
                action->setContextObject(DCIValue(int64_t{i}), key);
                action->addContextEntriesFromDictionary({{"scratch", key}});
                action->removeContextObjectForKey("scratch");
            }
        });
    }
    std::thread reader([&] {
        while (writing) {
            const auto value = action->contextObjectForKey("1-7");
            if (value) {
                EXPECT_EQ(value->int64Value(), 7);
            }
            EXPECT_NE(action->description().find("Context: {"), std::string::npos);
        }
    });
    for (auto& writer : writers) writer.join();
    writing = false;
    reader.join();

    for (int writer = 0; writer < 2; ++writer) {
        for (int i = 0; i < kKeysPerWriter; ++i) {
            const std::string key = std::to_string(writer) + "-" + std::to_string(i);
            ASSERT_EQ(action->contextObjectForKey(key)->int64Value(), i) << key;
        }
    }
    EXPECT_FALSE(action->contextObjectForKey("scratch").has_value());
}

TEST_F(DCIActionEventsTest, EveryRealStatusChangeIsAnnouncedOnceWithBothValues) {
    const auto action = DCIAction::init();
    action->changeStatus(DCIActionStatusRunning);
    action->changeStatus(DCIActionStatusRunning);
    action->changeStatus(DCIActionStatusFailed);
    EXPECT_EQ(action->status(), DCIActionStatusFailed);

    const auto changes = statusChangesOf(action, 2);
    deliverPending();
    EXPECT_EQ(changes, (std::vector<StatusChange>{{DCIActionStatusRunning, DCIActionStatusUndefined},
                                                  {DCIActionStatusFailed, DCIActionStatusRunning}}));
    EXPECT_EQ(statusChangesOf(action, 2).size(), 2u);
}

TEST_F(DCIActionEventsTest, StatusEventsArePostedWithoutWaitingForTheMainThread) {
    const auto action = DCIAction::init();
    // The main thread is blocked in join meanwhile: a post that waited for it would hang.
    std::thread worker([&] {
        for (int64_t status = 1; status <= 7; ++status) action->changeStatus(status);
    });
    worker.join();
    const auto changes = statusChangesOf(action, 7);
    ASSERT_EQ(changes.size(), 7u);
    for (int64_t status = 1; status <= 7; ++status)
        EXPECT_EQ(changes[static_cast<size_t>(status - 1)], StatusChange(status, status - 1));
}

TEST_F(DCIActionEventsTest, OnlyAFailureKeepsTheError) {
    const auto action = DCIAction::init();
    const DCIError error = DCIError::posixError(ENOENT, "open /missing");
    action->setContextObject(error, kDCIError);
    action->changeStatus(DCIActionStatusFailed);
    ASSERT_TRUE(action->contextObjectForKey(kDCIError).has_value());
    EXPECT_EQ(*action->contextObjectForKey(kDCIError)->error(), error);

    action->changeStatus(DCIActionStatusPending);
    EXPECT_FALSE(action->contextObjectForKey(kDCIError).has_value());

    // Setting the status an action already has is no change, so the error stays.
    action->setContextObject(error, kDCIError);
    action->changeStatus(DCIActionStatusPending);
    EXPECT_TRUE(action->contextObjectForKey(kDCIError).has_value());
    action->changeStatus(DCIActionStatusCompleted);
    EXPECT_FALSE(action->contextObjectForKey(kDCIError).has_value());
}

TEST(DCIAction, EachStatusHasItsTextAndOtherNumbersNone) {
    const std::vector<std::pair<int64_t, std::string_view>> table{
        {0, "Undefined"}, {1, "Restarted"}, {2, "Pending"}, {3, "Running"}, {4, "Paused"}, {5, "Canceled"},
        {6, "Failed"},    {7, "Completed"}, {8, ""},        {-1, ""},       {std::numeric_limits<int64_t>::min(), ""}};
    for (const auto& [status, text] : table) EXPECT_EQ(DCIActionStatusText(status), text) << status;
}

TEST_F(DCIActionEventsTest, UnknownStatusesAreStoredAnnouncedAndShownWithoutText) {
    const auto action = DCIAction::init();
    action->changeStatus(9);
    EXPECT_EQ(action->status(), 9);
    EXPECT_NE(action->description().find("\n\tStatus: \n\tContext: "), std::string::npos);
    action->changeStatus(-1);
    EXPECT_NE(action->description().find("\n\tStatus: \n\tContext: "), std::string::npos);
    EXPECT_EQ(statusChangesOf(action, 2), (std::vector<StatusChange>{{9, 0}, {-1, 9}}));
}

TEST_F(DCIActionEventsTest, RecursiveStatusChangesAnnounceChildrenBeforeParents) {
    const auto parent = DCIAction::init();
    const auto first = DCIAction::init();
    const auto second = DCIAction::init();
    const auto grandchild = DCIAction::init();
    first->setParent(parent);
    second->setParent(parent);
    grandchild->setParent(first);

    parent->recursivelyChangeStatus(DCIActionStatusCanceled);
    for (const auto& action : {parent, first, second, grandchild}) EXPECT_EQ(action->status(), DCIActionStatusCanceled);

    ASSERT_TRUE(pumpMainLoopUntil([&] { return recorder_->events.size() == 4; }));
    deliverPending();
    ASSERT_EQ(recorder_->events.size(), 4u);
    const auto arrival = [&](const std::shared_ptr<DCIAction>& action) {
        const auto& events = recorder_->events;
        return std::find_if(events.begin(), events.end(), [&](const auto& event) { return event->action() == action; }) -
               events.begin();
    };
    EXPECT_LT(arrival(grandchild), arrival(first));
    EXPECT_EQ(arrival(parent), 3);
}

TEST(DCIAction, IncrementingPriorityStopsAtZeroAndAtTheTopForEachAction) {
    const auto parent = DCIAction::init();
    const auto child = DCIAction::init();
    child->setParent(parent);
    parent->setPriority(3);
    child->setPriority(10);

    parent->recursivelyIncrementPriority(-5);
    EXPECT_EQ(parent->priority(), 0u);
    EXPECT_EQ(child->priority(), 5u);

    parent->setPriority(1);
    parent->recursivelyIncrementPriority(4);
    EXPECT_EQ(parent->priority(), 5u);
    EXPECT_EQ(child->priority(), 9u);

    constexpr uint64_t kTop = std::numeric_limits<uint64_t>::max();
    parent->setPriority(kTop - 1);
    parent->recursivelyIncrementPriority(5);
    EXPECT_EQ(parent->priority(), kTop);
    EXPECT_EQ(child->priority(), 14u);

    parent->recursivelyIncrementPriority(std::numeric_limits<int64_t>::min());
    EXPECT_EQ(parent->priority(), kTop - (uint64_t{1} << 63));
    EXPECT_EQ(child->priority(), 0u);
}

TEST(DCIAction, SettingPriorityReachesEveryDescendantButNoAncestor) {
    const auto top = DCIAction::init();
    const auto middle = DCIAction::init();
    const auto bottom = DCIAction::init();
    middle->setParent(top);
    bottom->setParent(middle);

    middle->recursivelySetPriority(42);
    EXPECT_EQ(top->priority(), 1u);
    EXPECT_EQ(middle->priority(), 42u);
    EXPECT_EQ(bottom->priority(), 42u);
}

TEST(DCIAction, AChildOwnsItsParentAndAParentOnlyKnowsItsChildren) {
    auto parent = DCIAction::init();
    auto child = DCIAction::init();
    child->setParent(parent);
    const std::weak_ptr<DCIAction> parentAlive = parent;
    const std::weak_ptr<DCIAction> childAlive = child;
    parent.reset();

    ASSERT_FALSE(parentAlive.expired());
    EXPECT_EQ(child->parent(), parentAlive.lock());
    EXPECT_EQ(parentAlive.lock()->children(), std::vector<std::shared_ptr<DCIAction>>{child});

    // The parent goes with its last child...
    child.reset();
    EXPECT_TRUE(childAlive.expired());
    EXPECT_TRUE(parentAlive.expired());

    // ...while a destroyed child leaves a parent that someone else holds.
    const auto holder = DCIAction::init();
    auto leaving = DCIAction::init();
    const auto staying = DCIAction::init();
    leaving->setParent(holder);
    staying->setParent(holder);
    leaving.reset();
    EXPECT_EQ(holder->children(), std::vector<std::shared_ptr<DCIAction>>{staying});
}

TEST(DCIAction, SetParentMovesAnActionBetweenParents) {
    const auto first = DCIAction::init();
    const auto second = DCIAction::init();
    const auto grandparent = DCIAction::init();
    const auto child = DCIAction::init();
    second->setParent(grandparent);

    child->setParent(first);
    child->setParent(first);
    EXPECT_EQ(first->children().size(), 1u);

    child->setParent(second);
    EXPECT_TRUE(first->children().empty());
    EXPECT_EQ(second->children(), std::vector<std::shared_ptr<DCIAction>>{child});
    EXPECT_EQ(child->root(), grandparent);
    EXPECT_EQ(second->root(), grandparent);

    child->setParent(nullptr);
    EXPECT_TRUE(second->children().empty());
    EXPECT_EQ(child->parent(), nullptr);
    EXPECT_EQ(child->root(), child);
}

TEST(DCIAction, ChildrenMayGoAwayOnOtherThreadsWhileTheTreeIsWalked) {
    const auto parent = DCIAction::init();
    std::vector<std::shared_ptr<DCIAction>> children;
    for (int i = 0; i < 200; ++i) {
        children.push_back(DCIAction::init());
        children.back()->setParent(parent);
    }
    std::thread dropper([&] { children.clear(); });
    for (int i = 0; i < 50; ++i) parent->recursivelySetPriority(static_cast<uint64_t>(i));
    dropper.join();
    EXPECT_TRUE(parent->children().empty());
}

TEST(DCIAction, CompareToPutsTheNextToHandOutLast) {
    const auto earlier = DCIAction::init();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));  // a later timestamp, not just a later sequence
    const auto later = DCIAction::init();
    EXPECT_EQ(later->compareTo(*earlier), 1);
    EXPECT_EQ(earlier->compareTo(*later), -1);
    EXPECT_EQ(earlier->compareTo(*earlier), -1);

    earlier->setPriority(1);
    later->setPriority(100000);
    EXPECT_EQ(earlier->compareTo(*later), 1);
    EXPECT_EQ(later->compareTo(*earlier), -1);
}

TEST_F(DCIActionEventsTest, DescriptionShowsCategoryTypeStatusAndContext) {
    const auto action = DCIAction::initWithCategory(DCIActionCategoryCommon, DCIActionTypeMoveFile);
    action->setContextObject("/root/a b.wav", kDCIFileManagerMoveFrom);
    action->setContextObject("/root/c.wav", kDCIFileManagerMoveTo);
    action->changeStatus(DCIActionStatusPending);
    const DCIDictionary context{{std::string(kDCIFileManagerMoveFrom), "/root/a b.wav"},
                                {std::string(kDCIFileManagerMoveTo), "/root/c.wav"}};
    EXPECT_EQ(action->description(),
              "Action\n\tCategory = 0 - Type = 1\n\tStatus: Pending\n\tContext: " + DCIDescription(context));

    const auto hosts = DCIAction::initWithCategory(12, 34);
    hosts->changeStatus(DCIActionStatusCompleted);
    EXPECT_EQ(hosts->description(), "Action\n\tCategory = 12 - Type = 34\n\tStatus: Completed\n\tContext: {\n}");
}
