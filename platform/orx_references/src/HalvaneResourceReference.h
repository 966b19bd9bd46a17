#pragma once

#include "ResourceReference.h"

namespace orx {

//! A file or folder of the Halvane server.
class ORX_REFERENCES_EXPORT HalvaneResourceReference : public ResourceReference {
    Q_GADGET
public:
    //! The values are fixed.
    enum class ItemType : int { File = 0, Folder = 1 };
    Q_ENUM(ItemType)

    static constexpr Scheme schemeType = Scheme::Halvane;

    Scheme scheme() const final { return schemeType; }
    QString name() const final { return m_name; }
    //! `name (file:12@3)` or `name (folder:7)`.
    QString displayText() const override;
    int id() const { return m_id; }
    ItemType itemType() const { return m_itemType; }
    //! `file:12@3` or `folder:7`: what parse() reads.
    virtual QString toText() const = 0;

protected:
    HalvaneResourceReference(int id, ItemType itemType, const QString& name);

private:
    int m_id;
    ItemType m_itemType;
    QString m_name;
};

//! A file in one of its versions.
class ORX_REFERENCES_EXPORT HalvaneFileResourceReference final : public HalvaneResourceReference {
public:
    //! How a file is to be read. 0: as its name says.
    enum class FileKind : int { ByName = 0 };

    //! Fails with ErrorCode::InvalidArgument for an id below 1, a version below 1 or an empty name. \a
    //! variant tells apart several references to one file; empty as a rule.
    static Result<QSharedPointer<HalvaneFileResourceReference>> create(int id, int version,
                                                                       const QString& name,
                                                                       FileKind kind = FileKind::ByName,
                                                                       const QString& variant = QString());
    //! From 1 on.
    int version() const { return m_version; }
    QString variant() const { return m_variant; }
    QString toText() const override;
    //! A version never changes.
    bool namesOneContent() const override { return true; }

private:
    HalvaneFileResourceReference(int id, int version, const QString& name, const QString& variant);
    int m_version;
    QString m_variant;
};

//! A folder.
class ORX_REFERENCES_EXPORT HalvaneFolderResourceReference final : public HalvaneResourceReference {
public:
    //! Fails with ErrorCode::InvalidArgument for an id below 1.
    static Result<QSharedPointer<HalvaneFolderResourceReference>> create(int id, const QString& name);
    QString toText() const override;
    //! Anything in a folder may change.
    bool namesOneContent() const override { return false; }

private:
    HalvaneFolderResourceReference(int id, const QString& name);
};

using HalvaneResourceReferenceSPtr = QSharedPointer<HalvaneResourceReference>;
using HalvaneFileResourceReferenceSPtr = QSharedPointer<HalvaneFileResourceReference>;
using HalvaneFolderResourceReferenceSPtr = QSharedPointer<HalvaneFolderResourceReference>;

//! What a person wrote: `file:12`, `file:12@3`, `folder:7`. No name, and a version only when it was written.
struct ORX_REFERENCES_EXPORT HalvaneReferenceText {
    HalvaneResourceReference::ItemType itemType = HalvaneResourceReference::ItemType::File;
    int id = -1;
    //! 0: not given, the latest.
    int version = 0;

    //! Whether \a text has the form of a reference at all (as opposed to a remote path).
    static bool looksLikeReference(const QString& text);
    //! Fails with ErrorCode::InvalidArgument and a message that shows the forms.
    static Result<HalvaneReferenceText> parse(const QString& text);
};

} // namespace orx
