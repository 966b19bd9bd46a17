#pragma once

#include "orx_resource_manager_export.h"

#include <FileTypes.h>
#include <Result.h>

#include <QJsonObject>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QSharedPointer>
#include <QVariant>

namespace orx {

//! What is known of a resource besides its content. A value class, held by QSharedPointer where it travels.
//! Thread: one at a time.
class ORX_RESOURCE_MANAGER_EXPORT ResourceMetadata {
    Q_GADGET
public:
    //! The keys are what JSON holds under kItemType; letter case counts.
    enum class ItemType : int { Unknown = 0, File = 1, Folder = 2 };
    Q_ENUM(ItemType)

    static const QString kItemType; //!< "ItemType"
    static const QString kPath;     //!< "Path"
    static const QString kFullPath; //!< "FullPath"

    virtual ~ResourceMetadata();
    virtual QString name() const = 0;
    //! The folders above the resource, joined with "/".
    virtual QString path() const = 0;
    //! The path and the name.
    virtual QString fullPath() const = 0;
    virtual FileTypes::Type type() const = 0;
    virtual ItemType itemType() const = 0;
    //! The common keys: kItemType, kPath and kFullPath, through the virtual accessors.
    virtual QJsonObject toJson() const;
    //! Replaces the content; what was read before the first failure stays changed.
    virtual Error loadFromJson(const QJsonObject& json) = 0;

    //! The type of a task's variant result that holds metadata; registered, once, under the name
    //! "QSharedPointer<orx::ResourceMetadata>". Thread: any.
    static QMetaType sharedPointerType();
    //! \a metadata as such a result.
    static QVariant toVariant(const QSharedPointer<ResourceMetadata>& metadata);
    //! What toVariant() was given; null for a variant of any other type.
    static QSharedPointer<ResourceMetadata> fromVariant(const QVariant& variant);

    //! A default-constructed T (which may name this class a friend) that has read \a json, or the error of
    //! its loadFromJson().
    template <typename T>
    static Result<QSharedPointer<T>> create(const QJsonObject& json) {
        QSharedPointer<T> metadata(new T);
        if (Error error = static_cast<ResourceMetadata&>(*metadata).loadFromJson(json); error.hasError())
            return ORX_ECATCH(error);
        return metadata;
    }

protected:
    ResourceMetadata() = default;
    ResourceMetadata(const ResourceMetadata&) = default;
    ResourceMetadata& operator=(const ResourceMetadata&) = default;
};

using ResourceMetadataSPtr = QSharedPointer<ResourceMetadata>;

} // namespace orx
