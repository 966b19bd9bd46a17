#include "HalvaneSettings.h"

#include <QDir>

namespace orx {

HalvaneUserSettings::HalvaneUserSettings()
    : m_tempDirTemplate(QDir::tempPath() + QStringLiteral("/halvane-XXXXXX")) {}

HalvaneSettings::HalvaneSettings() : HalvaneSettings(HalvaneMachineSettings(), HalvaneUserSettings()) {}

HalvaneSettings::HalvaneSettings(const HalvaneMachineSettings& machine, const HalvaneUserSettings& user)
    : m_machine(QSharedPointer<HalvaneMachineSettings>::create(machine))
    , m_user(QSharedPointer<HalvaneUserSettings>::create(user)) {}

} // namespace orx
