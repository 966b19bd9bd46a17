// Room on a disk for what is written side by side: planned, waited for in line, given back.
#include "DiskRoom.h"
#include "PackingFixture.h"
#include "SmallDisk.h"
#include "StagedTree.h"

#include <QFile>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

using namespace orx;
using namespace orx::vonk;
using orx::testing::HungDisk;
using orx::testing::SmallDisk;

namespace {

class SharedDisk : public PackingFixture {
protected:
    using Given = Result<std::shared_ptr<DiskRoom>>;
    using Content = DiskRoom::Content;

    //! Of what is free at first, which is a thousand MiB.
    static constexpr qint64 kMiB = qint64(1) << 20;

    Given take(qint64 bytes) const { return DiskRoom::take(out(), bytes, out(QStringLiteral("run1.vonk"))); }

    //! What somebody was given, on any thread.
    class Answer {
    public:
        void give(const Given& room) {
            const std::lock_guard lock(m_mutex);
            m_room = room;
            m_given.notify_all();
        }
        bool isGiven() const {
            const std::lock_guard lock(m_mutex);
            return m_room.has_value();
        }
        Given await() const {
            std::unique_lock lock(m_mutex);
            m_given.wait(lock, [this] { return m_room.has_value(); });
            return *m_room;
        }
        void drop() {
            std::optional<Given> room;
            const std::lock_guard lock(m_mutex);
            room.swap(m_room);
        }

    private:
        mutable std::mutex m_mutex;
        mutable std::condition_variable m_given;
        std::optional<Given> m_room;
    };
    //! Somebody who asks; what was given is kept.
    struct Asker {
        std::shared_ptr<RoomWish> wish;
        std::shared_ptr<Answer> answer = std::make_shared<Answer>();
        bool isAnswered() const { return answer->isGiven(); }
        //! Waits for the answer.
        bool getsRoom() const { return !answer->await().hasError(); }
        void giveBack() const { answer->drop(); }
    };
    static Asker wishFor(const QString& directory, qint64 bytes, Content content = Content::Stays) {
        Asker asker;
        asker.wish = std::make_shared<RoomWish>();
        asker.wish->directory = directory;
        asker.wish->bytes = bytes;
        asker.wish->wanted = directory + QStringLiteral("/run1.vonk");
        asker.wish->content = content;
        asker.wish->given = [answer = asker.answer](const Given& room) { answer->give(room); };
        return asker;
    }
    Asker ask(qint64 bytes, Content content = Content::Stays) const {
        Asker asker = wishFor(out(), bytes, content);
        DiskRoom::ask(asker.wish);
        return asker;
    }
    //! A file that is as large as that and takes no room.
    static void resize(const QString& path, qint64 bytes) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(file.resize(bytes));
    }

    const SmallDisk m_disk{out().toStdString(), 1000 * kMiB};
};

TEST_F(SharedDisk, WhoFitsOnlyWithoutOthersWaitsAndNobodyOvertakes) {
    const Asker first = ask(700 * kMiB);
    ASSERT_TRUE(first.getsRoom());
    const Asker second = ask(600 * kMiB);
    const Asker third = ask(200 * kMiB);
    EXPECT_FALSE(second.isAnswered());
    EXPECT_FALSE(third.isAnswered()) << "it would fit, but came later";
    first.giveBack();
    EXPECT_TRUE(second.getsRoom());
    EXPECT_TRUE(third.getsRoom());
}

TEST_F(SharedDisk, WhoStoodBehindOneThatGaveUpIsNext) {
    const Asker first = ask(700 * kMiB);
    Asker second = ask(600 * kMiB);
    const Asker third = ask(200 * kMiB);
    second.wish.reset();
    EXPECT_TRUE(third.getsRoom());
    EXPECT_FALSE(second.isAnswered());
}

TEST_F(SharedDisk, WhoDoesNotWaitGetsNothingThatIsHeld) {
    const Asker first = ask(700 * kMiB);
    ASSERT_TRUE(first.getsRoom());
    EXPECT_TRUE(take(600 * kMiB).error().is(ErrorCode::StorageFull));
    EXPECT_FALSE(take(200 * kMiB).hasError());
}

TEST_F(SharedDisk, WhatWasWrittenIsHeldNoLonger) {
    const auto first = take(700 * kMiB);
    ASSERT_FALSE(first.hasError());
    (*first)->written(600 * kMiB);
    EXPECT_FALSE(take(900 * kMiB).hasError());
    EXPECT_TRUE(take(901 * kMiB).error().is(ErrorCode::StorageFull));
    // More than was held is nobody else's.
    (*first)->written(600 * kMiB);
    EXPECT_FALSE(take(1000 * kMiB).hasError());
    const auto second = take(900 * kMiB);
    EXPECT_TRUE(take(101 * kMiB).error().is(ErrorCode::StorageFull));
}

TEST_F(SharedDisk, WhatWillBeRemovedIsWaitedForAndWhatStaysIsNot) {
    const Asker temporary = ask(700 * kMiB, Content::Temporary);
    ASSERT_TRUE(temporary.getsRoom());
    const auto room = *temporary.answer->await();
    room->written(600 * kMiB);
    room->finish();
    const SmallDisk fuller(out().toStdString(), 400 * kMiB);
    const Asker waiting = ask(900 * kMiB);
    EXPECT_FALSE(waiting.isAnswered());
    const Asker tooLarge = ask(1001 * kMiB);
    const SmallDisk empty(out().toStdString(), 1000 * kMiB);
    room->release();
    EXPECT_TRUE(waiting.getsRoom());
    EXPECT_TRUE(tooLarge.answer->await().error().is(ErrorCode::StorageFull));
}

TEST_F(SharedDisk, APackingTakesWhatItNeedsUntilItIsThroughLessWhatItHasWritten) {
    write(in(QStringLiteral("run.raw")), text(4 << 20));
    const PackInput input = inputOf(in(QStringLiteral("run.raw")));
    const qint64 others = 1000 * kMiB - *VonkPacker::mostBytes(input, out(QStringLiteral("a.vonk")));
    const auto tooMuch = take(others + 1);
    ASSERT_FALSE(tooMuch.hasError());
    EXPECT_TRUE(VonkPacker::pack(input, out(QStringLiteral("a.vonk"))).error().is(ErrorCode::StorageFull));
    (*tooMuch)->release();
    WorkWatch watch;
    watch.progress = [&](qint64 done, qint64) {
        EXPECT_TRUE(take(others + 1).hasError()) << done;
        EXPECT_FALSE(take(others).hasError()) << done;
    };
    EXPECT_FALSE(VonkPacker::pack(input, out(QStringLiteral("a.vonk")), watch).hasError());
    EXPECT_FALSE(take(others + 1).hasError()) << "it became smaller than it might have been";
}

TEST_F(SharedDisk, AnUnpackingTakesWhatItNeedsLessWhatItHasWritten) {
    const VonkEntry entry{QStringLiteral("content/a"), VonkEntry::Type::File, 600 * kMiB, {}, {}};
    auto tree = StagedTree::create(out(QStringLiteral("run1")), {entry});
    ASSERT_FALSE(tree.hasError());
    EXPECT_TRUE(take(401 * kMiB).hasError());
    EXPECT_FALSE(take(398 * kMiB).hasError());
    const QByteArray content = text(4 << 20);
    ASSERT_FALSE(tree->begin(entry).hasError());
    ASSERT_FALSE(tree->write({content.constData(), size_t(content.size())}).hasError());
    EXPECT_TRUE(take(401 * kMiB).hasError());
    EXPECT_FALSE(take(398 * kMiB).hasError());
}

TEST_F(SharedDisk, WhatIsRefusedSaysHowMuchIsFree) {
    const Error error = take(std::numeric_limits<qint64>::max() / 4).error();
    EXPECT_TRUE(error.is(ErrorCode::StorageFull));
    EXPECT_TRUE(error.errorMessage().contains(out(QStringLiteral("run1.vonk"))))
        << qPrintable(error.errorMessage());
    EXPECT_TRUE(error.errorMessage().contains(QStringLiteral("MiB are free")))
        << qPrintable(error.errorMessage());
}

// ---- disks that do not answer

TEST_F(SharedDisk, ThatDoesNotAnswerKeepsNobodyOnAnotherOneNorWhoGivesRoomBack) {
    const SmallDisk disk(in().toStdString(), 1000 * kMiB);
    const HungDisk hung(in().toStdString());
    const auto held = DiskRoom::take(in(), 700 * kMiB, in(QStringLiteral("run1.vonk")));
    ASSERT_FALSE(held.hasError());
    const Asker waiting = wishFor(in(), 600 * kMiB);
    DiskRoom::ask(waiting.wish);
    Asker givesUp = wishFor(in(), 600 * kMiB);
    DiskRoom::ask(givesUp.wish);
    EXPECT_FALSE(waiting.isAnswered());
    HungDisk::hang();
    // On this thread, which has an event loop.
    (*held)->release();
    HungDisk::awaitAsker();
    (*held)->written(1);
    givesUp.wish.reset();
    const Asker elsewhere = ask(700 * kMiB);
    EXPECT_TRUE(elsewhere.getsRoom());
    elsewhere.answer->await().value()->written(1);
    elsewhere.giveBack();
    EXPECT_FALSE(take(900 * kMiB).hasError());
    EXPECT_FALSE(waiting.isAnswered());
    HungDisk::answer();
    EXPECT_TRUE(waiting.getsRoom());
    EXPECT_FALSE(givesUp.isAnswered());
}

TEST_F(SharedDisk, ThatAnswersLateDoesNotGiveTwiceWhatWasWrittenMeanwhile) {
    const HungDisk hung(out().toStdString());
    const auto first = take(700 * kMiB);
    ASSERT_FALSE(first.hasError());
    HungDisk::hang();
    const Asker second = wishFor(out(), 400 * kMiB);
    std::jthread asking([&] { DiskRoom::ask(second.wish); });
    HungDisk::awaitAsker();
    resize(out(QStringLiteral("run1.vonk")), 600 * kMiB);
    (*first)->written(600 * kMiB);
    HungDisk::answer();
    asking.join();
    EXPECT_FALSE(second.isAnswered()) << "there are 300 MiB";
    EXPECT_TRUE(QFile::remove(out(QStringLiteral("run1.vonk"))));
    (*first)->release();
    EXPECT_TRUE(second.getsRoom());
}

TEST_F(SharedDisk, ThatAnswersLateRefusesNobodyForWhatWasGivenBackMeanwhile) {
    const HungDisk hung(out().toStdString());
    const Asker first = ask(700 * kMiB, Content::Temporary);
    const auto room = *first.answer->await();
    resize(out(QStringLiteral("run1.vonk")), 700 * kMiB);
    room->written(700 * kMiB);
    HungDisk::hang();
    const Asker second = wishFor(out(), 600 * kMiB);
    std::jthread asking([&] { DiskRoom::ask(second.wish); });
    HungDisk::awaitAsker();
    EXPECT_TRUE(QFile::remove(out(QStringLiteral("run1.vonk"))));
    room->release();
    HungDisk::answer();
    EXPECT_TRUE(second.getsRoom());
}

} // namespace
