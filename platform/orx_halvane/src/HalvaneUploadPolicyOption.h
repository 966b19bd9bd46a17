#pragma once

#include "orx_halvane_export.h"

#include <QFlags>
#include <QObject>

namespace orx {

//! Holder of the upload policy enumeration.
class ORX_HALVANE_EXPORT ORX_QEnumsHalvaneUploadPolicyOption {
    Q_GADGET
public:
    //! Flags; the values are fixed.
    enum class HalvaneUploadPolicyOption : int {
        NewVersionByName = 1,           //!< a file of the same name in the target folder gets a new version
        ReplaceWithoutVersionCheck = 2, //!< the version recorded locally is not compared with the server's
        KeepGoing = 4                   //!< one failed upload of a folder does not stop the others
    };
    Q_ENUM(HalvaneUploadPolicyOption)
    Q_DECLARE_FLAGS(HalvaneUploadPolicyOptions, HalvaneUploadPolicyOption)
};

using HalvaneUploadPolicyOption = ORX_QEnumsHalvaneUploadPolicyOption::HalvaneUploadPolicyOption;
using HalvaneUploadPolicyOptions = QFlags<HalvaneUploadPolicyOption>;

} // namespace orx
Q_DECLARE_OPERATORS_FOR_FLAGS(orx::HalvaneUploadPolicyOptions)
