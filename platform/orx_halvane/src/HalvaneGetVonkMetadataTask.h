#pragma once

#include "HalvaneTask.h"

#include <Vonk.h>

#include <optional>

namespace orx {

//! What a packed acquisition on the server says of itself: its entries with their sizes and checksums. Reads
//! the end of the file and a few bytes of its beginning by ranges, of one version; as a rule that is two
//! calls and 256 KiB, whatever the size of the file. Parses on a worker.
//!
//! Errors: those of the calls; those of vonk::Vonk for what is no packed acquisition that can be read here
//! (ErrorCode::ParseError, ChecksumMismatch, InvalidArgument), naming the file.
class ORX_HALVANE_EXPORT HalvaneGetVonkMetadataTask : public HalvaneComplexTask {
    Q_OBJECT
public:
    struct Wanted {
        int fileId = -1;
        int version = 0;
        //! For messages.
        QString name;
    };
    explicit HalvaneGetVonkMetadataTask(const Wanted& wanted, QObject* parent = nullptr);
    ~HalvaneGetVonkMetadataTask() override;

    //! After success.
    const vonk::VonkMetadata& metadata() const { return m_metadata; }

protected:
    Error initialize() override;

private:
    void ask(const QByteArray& range);
    void take(const QByteArray& range, const QByteArray& bytes);
    void look();
    void onLooked(const Result<vonk::VonkLook>& look);

    const Wanted m_wanted;
    QByteArray m_entityTag;
    vonk::VonkEnds m_ends;
    vonk::VonkMetadata m_metadata;
    //! Each part is asked for once: a file whose parts move about is none that can be read.
    int m_calls = 0;
};

} // namespace orx
