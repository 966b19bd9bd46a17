#pragma once

#include "HalvaneConnection.h"
#include "HalvaneTask.h"

#include <NetworkError.h>
#include <ScriptedHalvaneServer.h>

#include <gtest/gtest.h>

namespace orx::testing {

//! A scripted server that the client is logged in at.
class HalvaneTaskFixture : public ::testing::Test {
protected:
    void SetUp() override { m_server.connectClient(); }
    void TearDown() override {
        HalvaneConnection::instance().setSettings(HalvaneSettings());
        HalvaneConnection::instance().setCredentials(QString(), QByteArray());
    }

    //! Runs \a task to its end, without a retry.
    static Error run(HalvaneTask& task) {
        task.setMaxAttempts(1);
        task.exec();
        return task.waitForFinished();
    }

    ScriptedHalvaneServer m_server;
};

inline ::testing::AssertionResult isNetworkError(const Error& error, NetworkErrorCode code) {
    if (error.is(ErrorDomain::Network, int(code)))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "it is: " << qPrintable(error.traceText());
}

inline ::testing::AssertionResult succeeded(const Error& error) {
    if (!error.hasError())
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << qPrintable(error.traceText());
}

} // namespace orx::testing
