#include "AsyncVonkTask.h"

#include <DiskRoom.h>
#include <OwnerInbox.h>
#include <VonkPacker.h>
#include <WorkerPool.h>

#include <QFile>
#include <QFileInfo>
#include <QPointer>

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
        askForRoom();
    else
        VonkTask::start();
}

void AsyncVonkTask::askForRoom() {
    m_wish = std::make_shared<vonk::RoomWish>();
    m_wish->directory = QFileInfo(m_target).absolutePath();
    m_wish->wanted = m_target;
    m_wish->content =
        m_isTargetTemporary ? vonk::DiskRoom::Content::Temporary : vonk::DiskRoom::Content::Stays;
    const std::weak_ptr<vonk::RoomWish> waiting = m_wish;
    m_wish->given = [inbox = OwnerInbox::ofThisThread(), self = QPointer<AsyncVonkTask>(this),
                     waiting](const Result<std::shared_ptr<vonk::DiskRoom>>& room) {
        inbox->post([self, waiting, room] {
            if (self && self->m_wish && self->m_wish == waiting.lock())
                self->begin(room);
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
        nullptr, {});
}

void AsyncVonkTask::begin(const Result<std::shared_ptr<vonk::DiskRoom>>& room) {
    m_wish.reset();
    if (room.hasError()) {
        finish(room.error());
        return;
    }
    m_room = *room;
    VonkTask::start();
}

void AsyncVonkTask::doCancel() {
    if (m_wish)
        finish(Error());
    else
        VonkTask::doCancel();
}

Error AsyncVonkTask::doFinish() {
    m_wish.reset();
    // Its body may never have begun.
    if (m_room && hasError())
        m_room->release();
    return VonkTask::doFinish();
}

Error AsyncVonkTask::work(const vonk::WorkWatch& watch) {
    return vonk::VonkPacker::pack(m_input, m_target, watch, m_room).error();
}

void AsyncVonkTask::discard() {
    QFile::remove(m_target);
}

} // namespace orx
