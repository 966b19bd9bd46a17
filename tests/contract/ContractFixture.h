#pragma once

#include <RealServer.h>
#include <ScriptedHalvaneServer.h>

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>

namespace orx::testing {

enum class Backend { Scripted, Real };

//! What came back of one plain call.
struct Answer {
    int status = 0;
    QList<HttpHeader> headers;
    QByteArray body;

    QJsonObject json() const;
    //! The "data" of a success.
    QJsonObject data() const;
    //! The code of a failure; 0 for a success.
    int errorCode() const;
    QByteArray header(const QByteArray& name) const { return NetworkRequest::header(headers, name); }
};

//! The same cases against the scripted server and against the real one: what the scripted one promises in
//! tests is what the real one does. The client is logged in; chunks are 8 bytes long.
class ContractTest : public ::testing::TestWithParam<Backend> {
protected:
    static constexpr int ChunkSize = 8;
    static constexpr int Root = 1;

    ContractTest();
    ~ContractTest() override;

    QString userName() const;
    QString password() const;

    //! One attempt of one call below /api/v1, with the token and without the client's tasks.
    Answer call(NetworkRequest::Method method, const QString& path, const QByteArray& body = {},
                const QList<HttpHeader>& headers = {}) const;
    Answer get(const QString& path, const QList<HttpHeader>& headers = {}) const;
    Answer post(const QString& path, const QJsonObject& body, const QByteArray& key = {}) const;

    //! Opens an upload into a folder, or as a version of a file with \a type 0.
    Answer open(const QString& name, qint64 size, const QByteArray& key, int target = Root,
                int type = 1) const;
    Answer putChunk(int upload, int index, const QByteArray& chunk, const QByteArray& xxh3 = {}) const;
    //! All chunks of \a content and its checksum.
    void sendAll(int upload, const QByteArray& content) const;
    Answer finalize(int upload, const QByteArray& key) const;
    //! A whole upload by plain calls; the id of the file.
    int makeFile(const QString& name, const QByteArray& content, int folder = Root) const;
    int addVersion(int fileId, const QByteArray& content) const;
    int makeFolder(const QString& name, int parent = Root) const;
    //! From now on the client is somebody who may read this folder and what is below it, and nothing else.
    void becomeReaderOf(int folder) const;
    //! The server; one of the two is null.
    RealServer* real() const { return m_real.get(); }
    ScriptedHalvaneServer* scripted() const { return m_scripted.get(); }

private:
    std::unique_ptr<RealServer> m_real;
    std::unique_ptr<ScriptedHalvaneServer> m_scripted;
    std::unique_ptr<ClientEnvironment> m_client;
    mutable int m_keys = 0;
};

//! The backend's name as part of a test's name.
std::string backendName(const ::testing::TestParamInfo<Backend>& info);

#define ORX_CONTRACT(suite)                                                                                  \
    INSTANTIATE_TEST_SUITE_P(                                                                                \
        Contract, suite, ::testing::Values(orx::testing::Backend::Scripted, orx::testing::Backend::Real),    \
        orx::testing::backendName)

} // namespace orx::testing
