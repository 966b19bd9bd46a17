// Turns to pack: in order, and never lost with somebody who does not take his.
#include "PackingTurn.h"

#include <OwnerInbox.h>

#include <QStringList>

#include <gtest/gtest.h>

#include <future>
#include <thread>

using namespace orx;
using namespace orx::vonk;

namespace {

//! Somebody who asks, and keeps what he is given.
class Asker {
public:
    Asker() {
        m_wish->given = [this](const std::shared_ptr<PackingTurn>& turn) { m_turn = turn; };
    }
    Asker(QString name, QStringList& order) {
        m_wish->given = [this, name = std::move(name), &order](const std::shared_ptr<PackingTurn>& turn) {
            order.append(name);
            m_turn = turn;
        };
    }
    Q_DISABLE_COPY_MOVE(Asker)

    void ask() const { PackingTurn::ask(m_wish); }
    bool hasTurn() const { return m_turn != nullptr; }
    void giveBack() { m_turn.reset(); }
    void giveUp() { m_wish.reset(); }
    //! Instead of keeping it.
    void onGiven(std::function<void(const std::shared_ptr<PackingTurn>&)> given) const {
        m_wish->given = std::move(given);
    }

private:
    std::shared_ptr<TurnWish> m_wish = std::make_shared<TurnWish>();
    std::shared_ptr<PackingTurn> m_turn;
};

class PackingTurns : public ::testing::Test {
protected:
    PackingTurns() {
        for (int i = 0; i < PackingTurn::count(); ++i) {
            m_packing.push_back(std::make_unique<Asker>());
            m_packing.back()->ask();
            EXPECT_TRUE(m_packing.back()->hasTurn()) << i;
        }
    }
    //! One of those that pack has ended.
    void endOne() {
        m_packing.back()->giveBack();
        m_packing.pop_back();
    }

private:
    std::vector<std::unique_ptr<Asker>> m_packing;
};

TEST_F(PackingTurns, AreGivenFirstComeFirstServedAsTheyBecomeFree) {
    QStringList order;
    Asker a(QStringLiteral("a"), order);
    Asker b(QStringLiteral("b"), order);
    Asker c(QStringLiteral("c"), order);
    for (const Asker* const asker : {&a, &b, &c})
        asker->ask();
    EXPECT_EQ(order, QStringList());
    endOne();
    EXPECT_EQ(order, QStringList{QStringLiteral("a")});
    a.giveBack();
    EXPECT_EQ(order, (QStringList{QStringLiteral("a"), QStringLiteral("b")}));
    endOne();
    EXPECT_EQ(order, (QStringList{QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c")}));
}

TEST_F(PackingTurns, PassOverWhoGaveUp) {
    Asker gone;
    const Asker next;
    gone.ask();
    next.ask();
    gone.giveUp();
    EXPECT_FALSE(next.hasTurn());
    endOne();
    EXPECT_TRUE(next.hasTurn());
}

TEST_F(PackingTurns, GoOnWhenWhoIsGivenOneGivesUpJustThen) {
    Asker gone;
    const Asker next;
    gone.onGiven([&](const std::shared_ptr<PackingTurn>&) { gone.giveUp(); });
    gone.ask();
    next.ask();
    endOne();
    EXPECT_TRUE(next.hasTurn());
}

TEST_F(PackingTurns, GoOnWhenWhoIsSentOneGivesUpBeforeItArrives) {
    const auto inbox = OwnerInbox::ofThisThread();
    Asker gone;
    const Asker next;
    bool isThere = true;
    gone.onGiven([&](const std::shared_ptr<PackingTurn>& turn) {
        inbox->post([&isThere, turn] { EXPECT_FALSE(isThere) << "and nobody takes " << turn.get(); });
    });
    gone.ask();
    next.ask();
    endOne();
    isThere = false;
    gone.giveUp();
    EXPECT_FALSE(next.hasTurn()) << "it is on its way to the other one";
    EXPECT_TRUE(inbox->drain());
    EXPECT_TRUE(next.hasTurn());
}

TEST_F(PackingTurns, GoOnWhenTheThreadOfWhoIsSentOneHasEnded) {
    std::shared_ptr<OwnerInbox> inbox;
    std::thread([&] { inbox = OwnerInbox::ofThisThread(); }).join();
    const Asker gone;
    const Asker next;
    gone.onGiven([&](const std::shared_ptr<PackingTurn>& turn) { inbox->post([turn] { FAIL(); }); });
    gone.ask();
    next.ask();
    endOne();
    EXPECT_TRUE(next.hasTurn());
}

TEST_F(PackingTurns, GoOnWhenTheThreadOfWhoIsSentOneEndsBeforeItLooks) {
    std::promise<std::shared_ptr<OwnerInbox>> made;
    std::promise<void> end;
    std::thread owner([&] {
        made.set_value(OwnerInbox::ofThisThread());
        end.get_future().wait();
    });
    const auto inbox = made.get_future().get();
    const Asker gone;
    const Asker next;
    gone.onGiven([&](const std::shared_ptr<PackingTurn>& turn) { inbox->post([turn] { FAIL(); }); });
    gone.ask();
    next.ask();
    endOne();
    EXPECT_FALSE(next.hasTurn());
    end.set_value();
    owner.join();
    EXPECT_TRUE(next.hasTurn());
}

} // namespace
