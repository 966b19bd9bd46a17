#include "AsyncVonkTask.h"

#include <DiskRoom.h>
#include <OwnerInbox.h>
#include <PackingTurn.h>
#include <VonkPacker.h>
#include <WorkerPool.h>

#include <QFile>
#include <QFileInfo>
#include <QPointer>

#include <utility>

namespace orx {

AsyncVonkTask::AsyncVonkTask(const vonk::PackInput& input, const PathImpl<PathType::File>& vonkPath,
                             QObject* parent)
    : VonkTask(QStringLiteral("PackVonk(%1)").arg(input.path), parent)
    , m_input(input)
    , m_target(vonkPath.toString()) {
    setExecutionMode(ExecutionMode::Worker);
}

AsyncVonkTask::~AsyncVonkTask() {
    stopForGood();
}

void AsyncVonkTask::start() {
    if (executionMode() == ExecutionMode::Worker)
        askForTurn();
    else
        VonkTask::start();
}

void AsyncVonkTask::askForTurn() {
    m_isWaiting = true;
    m_isSlotLent = false;
    m_turnWish = std::make_shared<vonk::TurnWish>();
    const auto inbox = OwnerInbox::ofThisThread();
    const QPointer<AsyncVonkTask> self(this);
    const std::weak_ptr<vonk::TurnWish> waiting = m_turnWish;
    m_turnWish->given = [inbox, self, waiting](const std::shared_ptr<vonk::PackingTurn>& turn) {
        inbox->post([self, waiting, turn] {
            if (self && self->m_turnWish && self->m_turnWish == waiting.lock())
                self->onTurn(turn);
        });
    };
    vonk::PackingTurn::ask(m_turnWish);
    // Behind the turn, if it was given at once; and of a long line of them not all in one go.
    inbox->post([self, waiting] {
        if (self && self->m_turnWish && self->m_turnWish == waiting.lock())
            self->lendSlotOnce();
    });
}

void AsyncVonkTask::onTurn(const std::shared_ptr<vonk::PackingTurn>& turn) {
    m_turnWish.reset();
    m_turn = turn;
    askForRoom();
}

void AsyncVonkTask::askForRoom() {
    m_roomWish = std::make_shared<vonk::RoomWish>();
    m_roomWish->directory = QFileInfo(m_target).absolutePath();
    m_roomWish->wanted = m_target;
    m_roomWish->content =
        m_isTargetTemporary ? vonk::DiskRoom::Content::Temporary : vonk::DiskRoom::Content::Stays;
    const auto inbox = OwnerInbox::ofThisThread();
    const QPointer<AsyncVonkTask> self(this);
    const std::weak_ptr<vonk::RoomWish> waiting = m_roomWish;
    m_roomWish->given = [inbox, self, waiting](const Result<std::shared_ptr<vonk::DiskRoom>>& room) {
        inbox->post([self, waiting, room] {
            if (self && self->m_roomWish && self->m_roomWish == waiting.lock())
                self->onRoom(room);
        });
    };
    // What is to be packed may be many files.
    WorkerPool::instance().submit(
        [waiting, input = m_input, target = m_target] {
            const auto wish = waiting.lock();
            if (!wish)
                return;
            const auto bytes = vonk::VonkPacker::mostBytes(input, target);
            wish->bytes = bytes ? *bytes : 0;
            if (bytes)
                vonk::DiskRoom::ask(wish);
            else
                wish->given(bytes.error());
        },
        this,
        [this, waiting] {
            // Behind the room, if it was given at once.
            if (m_roomWish && m_roomWish == waiting.lock())
                lendSlotOnce();
        });
}

void AsyncVonkTask::onRoom(const Result<std::shared_ptr<vonk::DiskRoom>>& room) {
    m_roomWish.reset();
    if (room.hasError()) {
        finish(room.error());
        return;
    }
    m_room = *room;
    // It had its slot before all that are in line for one.
    if (m_isSlotLent)
        takeSlotBack([this] { begin(); }, SlotOrder::BeforeOthers);
    else
        begin();
}

void AsyncVonkTask::lendSlotOnce() {
    if (!std::exchange(m_isSlotLent, true))
        lendSlot();
}

void AsyncVonkTask::begin() {
    m_isWaiting = false;
    VonkTask::start();
}

void AsyncVonkTask::doCancel() {
    if (m_isWaiting)
        finish(Error());
    else
        VonkTask::doCancel();
}

Error AsyncVonkTask::doFinish() {
    m_isWaiting = false;
    m_turnWish.reset();
    m_roomWish.reset();
    m_turn.reset();
    // Its body may never have begun. What it made goes before others are told of the room that it took.
    const std::shared_ptr<vonk::DiskRoom> room = hasError() ? m_room : nullptr;
    const Error outcome = VonkTask::doFinish();
    if (room)
        room->release();
    return outcome;
}

Error AsyncVonkTask::work(const vonk::WorkWatch& watch) {
    return vonk::VonkPacker::pack(m_input, m_target, watch, m_room).error();
}

void AsyncVonkTask::discard() {
    QFile::remove(m_target);
}

} // namespace orx
