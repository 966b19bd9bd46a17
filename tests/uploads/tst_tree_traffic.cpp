// What a tree costs on the line: its files, its folders, and one listing of what the server holds already.
#include "TreeUploads.h"

#include <HalvaneListingStore.h>
#include <Transport.h>

#include <QRandomGenerator>
#include <QTimer>

#include <sqlite3.h>

namespace orx::testing {
namespace {

//! Lets every reply come somewhat later, so that they overtake each other.
class DelayedReplies final : public Transport {
public:
    DelayedReplies() : m_inner(Transport::ofThisThread()) { setOverride(this); }
    ~DelayedReplies() override { setOverride(nullptr); }

    std::unique_ptr<TransportCall> send(const NetworkRequest& request, ReplyHandler handler) override {
        auto call = std::make_unique<Call>();
        call->inner = m_inner.send(request, [this, late = &call->late, handler](const NetworkReply& reply) {
            QTimer::singleShot(m_random.bounded(10), late, [handler, reply] { handler(reply); });
        });
        return call;
    }

private:
    struct Call : TransportCall {
        void resume() override { inner->resume(); }
        QObject late; //!< no reply comes any more when the call is gone
        std::unique_ptr<TransportCall> inner;
    };
    Transport& m_inner;
    QRandomGenerator m_random{4711};
};

//! Requests and the bytes of the bodies in both directions.
struct Cost {
    int requests = 0;
    qint64 bytesIn = 0;
    qint64 bytesOut = 0;
};

class TreeTraffic : public TreeUploads {
protected:
    //! So many files, and a fifth as many folders: sub-folders, each with one of its own that holds a file.
    void makeTree(int files) const {
        for (int i = 0; i < files; ++i)
            put((i % 10 == 0 ? text("sub %1/below/run %1.bin") : text("run %1.bin")).arg(i), 20);
    }
    //! Puts \a items, half files and half folders, beside one file and one folder made by calls, without the
    //! thousands of calls that would take.
    void fill(int folder, int items) {
        put(text("pattern/pattern.bin"), 20);
        ASSERT_FALSE(run(*upload()).hasError());
        ASSERT_TRUE(QDir(local(text("pattern"))).removeRecursively());
        ASSERT_TRUE(server.stop());
        sqlite3* database = nullptr;
        const QByteArray path = QFile::encodeName(server.dataDir() + text("/catalog.sqlite3"));
        ASSERT_EQ(sqlite3_open_v2(path.constData(), &database, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
        const auto execute = [database](const QString& sql) {
            char* message = nullptr;
            EXPECT_EQ(sqlite3_exec(database, sql.toUtf8().constData(), nullptr, nullptr, &message), SQLITE_OK)
                << message;
        };
        const QString count =
            text("WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < %1) ")
                .arg(items / 2);
        execute(text("INSERT INTO folders (parent_id, name, depth, created_at, created_by) ") + count +
                text("SELECT parent_id, 'there ' || i, depth, created_at, created_by FROM n, folders "
                     "WHERE name = 'pattern'"));
        execute(text("INSERT INTO files (folder_id, name, last_version, created_at, created_by) ") + count +
                text("SELECT %1, 'there ' || i, 1, created_at, created_by FROM n, files "
                     "WHERE name = 'pattern.bin'")
                    .arg(folder));
        execute(text("INSERT INTO versions SELECT f.id, 1, size, sha256, alias, data_type, "
                     "source_modified_at, v.created_at, v.created_by, blob_name, small_content_id "
                     "FROM versions v, files f WHERE f.folder_id = %1 AND f.name LIKE 'there %'")
                    .arg(folder));
        EXPECT_EQ(sqlite3_close(database), SQLITE_OK);
        ASSERT_TRUE(server.start());
        HalvaneListingStore::instance().clear();
    }
    Cost costOf(int files, int there) {
        const int raw = makeFolder(text("raw"));
        if (there > 0)
            fill(raw, there);
        makeTree(files);
        server.clearRequests();
        {
            const DelayedReplies delayed;
            const auto task = upload();
            const Error error = run(*task);
            EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
            EXPECT_EQ(task->finishedTaskCounts(), (FinishedTaskCounts{files, 0, 0}));
        }
        return sumUp(raw);
    }
    Cost sumUp(int raw) {
        Cost cost;
        for (const RealServer::Request& request : server.requests()) {
            ++cost.requests;
            cost.bytesIn += request.bytesIn;
            cost.bytesOut += request.bytesOut;
            if (request.status != 200)
                continue;
            fileListsSent += request.path == text("/api/v1/folders/%1/files").arg(raw);
            folderListsSent += request.path == text("/api/v1/folders/%1/folders").arg(raw);
        }
        return cost;
    }
    //! Of the lists of the folder that the tree goes into: whole replies.
    int fileListsSent = 0;
    int folderListsSent = 0;
};

struct Size {
    int files;
    int there;
};

class TrafficOf : public TreeTraffic, public ::testing::WithParamInterface<Size> {};
INSTANTIATE_TEST_SUITE_P(Files, TrafficOf,
                         ::testing::Values(Size{50, 0}, Size{50, 5'000}, Size{500, 0}, Size{500, 5'000}),
                         [](const auto& size) {
                             return std::to_string(size.param.files) + "Into" +
                                    std::to_string(size.param.there);
                         });

TEST_P(TrafficOf, GrowsWithTheTreeAndWithWhatIsThereAndNeverWithTheirProduct) {
    const auto [files, there] = GetParam();
    const int folders = files / 5;
    const Cost cost = costOf(files, there);
    // Three calls make a file; each entry is compared with a listing, and each folder looked for and made.
    EXPECT_LE(cost.requests, 3 * files + (files + folders) + 4 * (folders + 1));
    EXPECT_GE(cost.requests, 3 * files) << "or nothing was counted";
    EXPECT_LE(cost.bytesIn, 600 * (files + folders + 1));
    // An item of a listing takes up to 500 bytes; what is there is sent once.
    EXPECT_LE(cost.bytesOut, 1'500 * (files + folders + 1) + 500 * there);
    EXPECT_EQ(fileListsSent, 1) << "one body, then confirmations";
    EXPECT_EQ(folderListsSent, 1) << "one body, then what is new and confirmations";
}

} // namespace
} // namespace orx::testing
