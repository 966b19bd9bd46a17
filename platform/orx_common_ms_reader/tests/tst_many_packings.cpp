// Many acquisitions are packed, checked and unpacked side by side: what they use together stays bounded.
#include "DiskRoom.h"
#include "PackingFixture.h"
#include "SharedLimits.h"
#include "SmallDisk.h"
#include "StagedTree.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <latch>
#include <optional>
#include <thread>

using namespace orx;
using namespace orx::vonk;

namespace {

constexpr int kMany = 12;

//! Does \a work for each number below kMany, all side by side.
void sideBySide(const std::function<void(int)>& work) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < kMany; ++i)
        threads.emplace_back(work, i);
}

//! Those that have been joined are seen for a moment more.
int mostThreads() {
    return kMany + int(workThreadCount()) - 1 + kMany / 2;
}

int threadsOfTheProcess() {
    return int(QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size());
}

class Highest {
public:
    void see(int value) {
        int highest = m_value;
        while (value > highest && !m_value.compare_exchange_weak(highest, value)) {
        }
    }
    int value() const { return m_value; }

private:
    std::atomic<int> m_value = 0;
};

class ManyPackings : public PackingFixture {
protected:
    //! Of each, packed alone: the bytes that it must give.
    void makeRuns(qsizetype size) {
        for (int i = 0; i < kMany; ++i) {
            write(source(i), text(size, quint32(i)));
            pack(source(i), out(QStringLiteral("alone")));
            m_expected.append(read(out(QStringLiteral("alone"))));
            ASSERT_TRUE(QFile::remove(out(QStringLiteral("alone"))));
        }
    }
    QString source(int i) const { return in(QStringLiteral("run%1.raw").arg(i)); }
    QString packed(int i) const { return out(QStringLiteral("run%1.vonk").arg(i)); }

    QList<QByteArray> m_expected;
};

TEST_F(ManyPackings, ShareOneNumberOfThreadsAndGiveTheSameBytes) {
    makeRuns(8 << 20);
    const int before = threadsOfTheProcess();
    Highest threads;
    // Each is in the midst of its work when they are counted.
    std::barrier allAtWork(kMany);
    sideBySide([&](int i) {
        bool isFirst = true;
        WorkWatch watch;
        watch.progress = [&](qint64, qint64) {
            if (std::exchange(isFirst, false))
                allAtWork.arrive_and_wait();
            threads.see(threadsOfTheProcess());
        };
        EXPECT_FALSE(VonkPacker::pack(inputOf(source(i)), packed(i), watch).hasError());
        EXPECT_EQ(read(packed(i)), m_expected[i]) << i;
    });
    EXPECT_LE(threads.value(), before + mostThreads());
}

TEST_F(ManyPackings, AreCheckedAndUnpackedWithOneNumberOfThreads) {
    makeRuns(8 << 20);
    for (int i = 0; i < kMany; ++i)
        write(packed(i), m_expected[i]);
    const int before = threadsOfTheProcess();
    Highest threads;
    std::barrier allAtWork(kMany);
    sideBySide([&](int i) {
        bool isFirst = true;
        WorkWatch watch;
        watch.progress = [&](qint64, qint64) {
            if (std::exchange(isFirst, false))
                allAtWork.arrive_and_wait();
            threads.see(threadsOfTheProcess());
        };
        Vonk vonk(packed(i));
        EXPECT_FALSE(vonk.open().hasError());
        EXPECT_FALSE(vonk.validate(Vonk::Check::Full, watch).hasError());
        isFirst = true;
        EXPECT_FALSE(vonk.unpack(out(QStringLiteral("back%1").arg(i)), watch).hasError());
        EXPECT_EQ(read(out(QStringLiteral("back%1/content/run%1.raw").arg(i))), read(source(i))) << i;
    });
    EXPECT_LE(threads.value(), before + mostThreads());
}

TEST_F(ManyPackings, MakeABoundedNumberOfSummariesAtATimeAndEachItsOwn) {
    makeRuns(1 << 20);
    Highest atATime;
    std::atomic<int> now = 0;
    // The first ones are not done before every packing has begun.
    std::latch allBegun(kMany);
    sideBySide([&](int i) {
        PackInput input = inputOf(source(i));
        input.summarise = [&, i](std::stop_token) {
            atATime.see(++now);
            allBegun.wait();
            --now;
            return PackInput::Summary{QJsonObject{{QStringLiteral("run"), i}}, {}};
        };
        bool isFirst = true;
        WorkWatch watch;
        watch.progress = [&](qint64, qint64) {
            if (std::exchange(isFirst, false))
                allBegun.count_down();
        };
        const auto metadata = VonkPacker::pack(input, packed(i), watch);
        ASSERT_FALSE(metadata.hasError());
        ASSERT_TRUE(metadata->runSummary.has_value()) << i;
        EXPECT_EQ(metadata->runSummary->value(QStringLiteral("run")).toInt(), i);
    });
    EXPECT_LE(atATime.value(), int(workThreadCount()));
}

TEST_F(ManyPackings, OneThatWaitsToMakeItsSummaryCanBeCancelled) {
    write(in(QStringLiteral("run.raw")), "m/z");
    std::latch end(1);
    std::latch busy{int(workThreadCount())};
    std::vector<std::jthread> others;
    for (unsigned i = 0; i < workThreadCount(); ++i)
        others.emplace_back([&, i] {
            PackInput input = inputOf(in(QStringLiteral("run.raw")));
            input.summarise = [&](std::stop_token) {
                busy.count_down();
                end.wait();
                return PackInput::Summary{QJsonObject(), {}};
            };
            EXPECT_FALSE(VonkPacker::pack(input, packed(int(i))).hasError());
        });
    busy.wait();
    PackInput input = inputOf(in(QStringLiteral("run.raw")));
    // It is asked once for each step, and again and again only while it waits.
    int asked = 0;
    WorkWatch watch;
    watch.isCanceled = [&] {
        ++asked;
        return false;
    };
    ASSERT_FALSE(VonkPacker::pack(input, out(QStringLiteral("without.vonk")), watch).hasError());
    bool isAsked = false;
    input.summarise = [&](std::stop_token) {
        isAsked = true;
        return PackInput::Summary();
    };
    watch.isCanceled = [&] { return asked-- <= 0; };
    EXPECT_TRUE(
        VonkPacker::pack(input, out(QStringLiteral("cancelled")), watch).error().is(ErrorCode::Canceled));
    EXPECT_FALSE(isAsked);
    end.count_down();
    others.clear();
    EXPECT_FALSE(names(out()).contains(QStringLiteral("cancelled")));
}

class SharedDisk : public PackingFixture {
protected:
    using Given = Result<std::shared_ptr<DiskRoom>>;
    using Content = DiskRoom::Content;

    //! Of what is free at first, which is a thousand MiB.
    static constexpr qint64 kMiB = qint64(1) << 20;

    Given take(qint64 bytes) const { return DiskRoom::take(out(), bytes, out(QStringLiteral("run1.vonk"))); }
    //! Somebody who asks; what was given is kept.
    struct Asker {
        std::shared_ptr<RoomWish> wish;
        std::shared_ptr<std::optional<Given>> given = std::make_shared<std::optional<Given>>();
        bool isAnswered() const { return given->has_value(); }
        bool hasRoom() const { return isAnswered() && !(*given)->hasError(); }
        void giveBack() const { given->reset(); }
    };
    Asker ask(qint64 bytes, Content content = Content::Stays) const {
        Asker asker;
        asker.wish = std::make_shared<RoomWish>();
        asker.wish->directory = out();
        asker.wish->bytes = bytes;
        asker.wish->wanted = out(QStringLiteral("run1.vonk"));
        asker.wish->content = content;
        asker.wish->given = [given = asker.given](const Given& room) { given->emplace(room); };
        DiskRoom::ask(asker.wish);
        return asker;
    }

    const orx::testing::SmallDisk m_disk{out().toStdString(), 1000 * kMiB};
};

TEST_F(SharedDisk, WhoFitsOnlyWithoutOthersWaitsAndNobodyOvertakes) {
    const Asker first = ask(700 * kMiB);
    ASSERT_TRUE(first.hasRoom());
    const Asker second = ask(600 * kMiB);
    const Asker third = ask(200 * kMiB);
    EXPECT_FALSE(second.isAnswered());
    EXPECT_FALSE(third.isAnswered()) << "it would fit, but came later";
    first.giveBack();
    EXPECT_TRUE(second.hasRoom());
    EXPECT_TRUE(third.hasRoom());
}

TEST_F(SharedDisk, WhoStoodBehindOneThatGaveUpIsNext) {
    const Asker first = ask(700 * kMiB);
    Asker second = ask(600 * kMiB);
    const Asker third = ask(200 * kMiB);
    second.wish.reset();
    EXPECT_TRUE(third.hasRoom());
    EXPECT_FALSE(second.isAnswered());
}

TEST_F(SharedDisk, WhoDoesNotWaitGetsNothingThatIsHeld) {
    const Asker first = ask(700 * kMiB);
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
    ASSERT_TRUE(temporary.hasRoom());
    (**temporary.given->value()).written(600 * kMiB);
    (**temporary.given->value()).finish();
    const orx::testing::SmallDisk fuller(out().toStdString(), 400 * kMiB);
    const Asker waiting = ask(900 * kMiB);
    EXPECT_FALSE(waiting.isAnswered());
    const Asker tooLarge = ask(1001 * kMiB);
    const orx::testing::SmallDisk empty(out().toStdString(), 1000 * kMiB);
    temporary.giveBack();
    EXPECT_TRUE(waiting.hasRoom());
    ASSERT_TRUE(tooLarge.isAnswered());
    EXPECT_TRUE((*tooLarge.given)->error().is(ErrorCode::StorageFull));
}

TEST_F(SharedDisk, APackingTakesWhatItNeedsUntilItIsThroughLessWhatItHasWritten) {
    // Becomes half as large.
    write(in(QStringLiteral("run.raw")), text(4 << 20));
    const auto others = take(997 * kMiB);
    ASSERT_FALSE(others.hasError());
    const PackInput input = inputOf(in(QStringLiteral("run.raw")));
    EXPECT_TRUE(VonkPacker::pack(input, out(QStringLiteral("a.vonk"))).error().is(ErrorCode::StorageFull));
    (*others)->release();
    WorkWatch watch;
    watch.progress = [&](qint64 done, qint64 total) {
        EXPECT_TRUE(take(997 * kMiB).hasError()) << done;
        if (done == total) {
            EXPECT_FALSE(take(995 * kMiB).hasError());
        }
    };
    EXPECT_FALSE(VonkPacker::pack(input, out(QStringLiteral("a.vonk")), watch).hasError());
    EXPECT_FALSE(take(997 * kMiB).hasError());
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

} // namespace
