#pragma once

#include <Transport.h>

#include <QHash>
#include <QJsonObject>
#include <QPointer>

#include <deque>

namespace orx::testing {

//! The uploads and contents of a server in memory, in the place of this thread's transport as long as it
//! lives. Answers from the event loop. What goes wrong is said beforehand by faults.
class FakeHalvane : public Transport {
public:
    struct Upload {
        QString name;
        qint64 size = 0;
        int targetId = 0;
        int targetType = 0;
        QJsonValue sourceModifiedAt;
        QByteArray key;
        QHash<int, QByteArray> chunks;
        QByteArray sha256;
        bool open = true;
        //! 0 until it is finalised.
        int fileId = 0;
    };
    struct Version {
        QByteArray content;
        QByteArray sha256;
        QJsonValue sourceModifiedAt;
    };
    struct Fault {
        enum Kind {
            Answer,    //!< the reply given, nothing is done
            LoseReply, //!< it is done, but the connection ends before the reply
            Lose,      //!< nothing is done, the connection ends
            Hang,      //!< no answer ever
            CutBody    //!< the body ends after so many bytes, and the connection with it
        };
        //! "METHOD" and the end of the path, with one blank between them.
        QByteArray request;
        Kind kind = Answer;
        NetworkReply reply = {};
        qint64 bytes = 0;
    };

    FakeHalvane();
    ~FakeHalvane() override;
    std::unique_ptr<TransportCall> send(const NetworkRequest& request, ReplyHandler handler) override;

    //! Holds for the next request that fits; several for one request come in order.
    void expectFault(const Fault& fault) { m_faults.push_back(fault); }
    static NetworkReply failure(int status, int code, const QByteArray& message = "refused");
    static NetworkReply text(int status, const QByteArray& body);

    int addUpload(const Upload& upload);
    void addVersion(int fileId, const Version& version) { files[fileId].append(version); }

    //! "METHOD /path" of every request, in order.
    QList<QByteArray> log;
    QList<NetworkRequest> requests;
    //! Requests of the log that contain \a text.
    int count(const QByteArray& text) const;
    const NetworkRequest* last(const QByteArray& text) const;

    qint64 chunkSize = 4;
    QHash<int, Upload> uploads;
    QHash<int, QList<Version>> files;
    bool honoursRanges = true;
    //! Replies of contents tell the checksum.
    bool stateChecksum = true;
    //! Bodies come in pieces of so many bytes.
    qint64 pieceSize = 3;
    //! Called for every piece of a body, and after every request was answered.
    std::function<void()> onStep;
    int inFlight = 0;
    int maxInFlight = 0;
    int chunksInFlight = 0;
    int maxChunksInFlight = 0;
    //! No chunk is answered before so many of them were in flight at once.
    int chunksAwaited = 0;

private:
    class Call;
    NetworkReply answer(const NetworkRequest& request, const QByteArray& path);
    NetworkReply open(const NetworkRequest& request);
    NetworkReply byKey(const QByteArray& key) const;
    NetworkReply putChunk(const NetworkRequest& request, Upload& upload, int index);
    NetworkReply finalize(const NetworkRequest& request);
    NetworkReply content(const NetworkRequest& request, int fileId, int version) const;
    NetworkReply item(int fileId) const;
    NetworkReply versions(int fileId) const;
    QJsonObject uploadObject(int id) const;
    QJsonObject fileObject(int fileId, int version) const;
    std::optional<Fault> takeFault(const QByteArray& line);

    std::deque<Fault> m_faults;
    int m_nextFileId = 100;
};

} // namespace orx::testing
