#pragma once

#include "orx_halvane_export.h"

#include <PackInput.h>
#include <PathImpl.h>
#include <VonkTask.h>

#include <memory>

namespace orx {

namespace vonk {
class DiskRoom;
class PackingTurn;
struct RoomWish;
struct TurnWish;
} // namespace vonk

//! Packs an acquisition into a packed acquisition file, on a worker unless its execution mode is changed. The
//! file appears complete and durable or not at all; what exists is never replaced. Errors: see VonkPacker.
//!
//! Packings on workers take turns, first come, first served: PackingTurn::count() at a time, and fewer when
//! they are too large together for the file system of their targets. Who waits keeps no worker, and lends the
//! slot of its group. StorageFull is for what would not fit by itself either.
class ORX_HALVANE_EXPORT AsyncVonkTask final : public vonk::VonkTask {
    Q_OBJECT
public:
    AsyncVonkTask(const vonk::PackInput& input, const PathImpl<PathType::File>& vonkPath,
                  QObject* parent = nullptr);
    ~AsyncVonkTask() override;

    //! The file is removed soon after it was used, and room() kept until then; others wait for that. False at
    //! first; has an effect only before exec().
    void setTargetTemporary(bool isTemporary) { m_isTargetTemporary = isTemporary; }
    //! What the file takes on the disk; null before the packing begins.
    std::shared_ptr<vonk::DiskRoom> room() const { return m_room; }

protected:
    void start() override;
    void doCancel() override;
    Error doFinish() override;
    Error work(const vonk::WorkWatch& watch) override;
    void discard() override;

private:
    void askForTurn();
    void onTurn(const std::shared_ptr<vonk::PackingTurn>& turn);
    void askForRoom();
    void onRoom(const Result<std::shared_ptr<vonk::DiskRoom>>& room);
    void lendSlotOnce();
    void begin();

    vonk::PackInput m_input;
    QString m_target;
    bool m_isTargetTemporary = false;
    //! From start() to begin().
    bool m_isWaiting = false;
    bool m_isSlotLent = false;
    //! While it waits for its turn, and then for room.
    std::shared_ptr<vonk::TurnWish> m_turnWish;
    std::shared_ptr<vonk::RoomWish> m_roomWish;
    std::shared_ptr<vonk::PackingTurn> m_turn;
    std::shared_ptr<vonk::DiskRoom> m_room;
};

} // namespace orx
