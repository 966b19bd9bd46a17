#pragma once

#include "orx_references_export.h"

#include <Result.h>

#include <QObject>
#include <QSharedPointer>
#include <QString>

namespace orx {

//! What a resource manager addresses a file or folder by. An immutable value held by shared pointer. Thread:
//! any.
class ORX_REFERENCES_EXPORT ResourceReference {
    Q_GADGET
public:
    enum class Scheme : int { LocalFile = 0, Halvane = 1 };
    Q_ENUM(Scheme)

    virtual ~ResourceReference();
    virtual Scheme scheme() const = 0;
    //! The name of the file or folder, without a path.
    virtual QString name() const = 0;
    //! For people: names the resource without doubt.
    virtual QString displayText() const = 0;
    //! Whether it names one content for ever, so that a copy of that never is an old one; otherwise the
    //! content may be another one at any time.
    virtual bool namesOneContent() const = 0;

protected:
    ResourceReference() = default;
    ResourceReference(const ResourceReference&) = default;
    ResourceReference& operator=(const ResourceReference&) = default;
};

using ResourceReferenceSPtr = QSharedPointer<ResourceReference>;

//! A path on this machine.
class ORX_REFERENCES_EXPORT LocalFileResourceReference final : public ResourceReference {
public:
    explicit LocalFileResourceReference(const QString& path);
    Scheme scheme() const override { return Scheme::LocalFile; }
    QString name() const override;
    QString displayText() const override { return m_path; }
    bool namesOneContent() const override { return false; }
    QString path() const { return m_path; }

private:
    QString m_path;
};

} // namespace orx
