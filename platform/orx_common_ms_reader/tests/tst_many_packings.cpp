// Many acquisitions are packed, checked and unpacked side by side: what they use together stays bounded.
#include "PackingFixture.h"
#include "SharedLimits.h"

#include <QDir>
#include <QFile>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <latch>
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

//! With some slack: a thread that has ended is seen for a moment more.
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

} // namespace
