#pragma once

#include "orx_halvane_export.h"

#include <QSharedPointer>
#include <QString>
#include <QUrl>

#include <chrono>

namespace orx {

//! Settings that are the machine's: which server. A value shared by pointer; replaced, never changed in
//! place.
class ORX_HALVANE_EXPORT HalvaneMachineSettings {
public:
    HalvaneMachineSettings() = default;
    explicit HalvaneMachineSettings(const QUrl& url) : m_url(url) {}
    //! The server's URL as the user gave it; invalid when there is none.
    QUrl url() const { return m_url; }

private:
    QUrl m_url;
};

//! Settings that are the user's.
class ORX_HALVANE_EXPORT HalvaneUserSettings {
public:
    HalvaneUserSettings();
    explicit HalvaneUserSettings(const QString& tempDirTemplate) : m_tempDirTemplate(tempDirTemplate) {}
    //! Template of temporary directories, ending in XXXXXX.
    QString tempDirTemplate() const { return m_tempDirTemplate; }
    //! For how long nothing may move in the transfer of a content before it is tried again. Zero: no limit.
    std::chrono::milliseconds transferSilence() const { return m_transferSilence; }
    void setTransferSilence(std::chrono::milliseconds silence) { m_transferSilence = silence; }

private:
    QString m_tempDirTemplate;
    std::chrono::milliseconds m_transferSilence = std::chrono::minutes(1);
};

//! Both together, as the connection holds them. Thread: any.
class ORX_HALVANE_EXPORT HalvaneSettings {
public:
    HalvaneSettings();
    HalvaneSettings(const HalvaneMachineSettings& machine, const HalvaneUserSettings& user);
    QSharedPointer<const HalvaneMachineSettings> machineSettingsPtr() const { return m_machine; }
    QSharedPointer<const HalvaneUserSettings> userSettingsPtr() const { return m_user; }

private:
    QSharedPointer<const HalvaneMachineSettings> m_machine;
    QSharedPointer<const HalvaneUserSettings> m_user;
};

} // namespace orx
