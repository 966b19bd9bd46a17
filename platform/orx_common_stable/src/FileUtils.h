#pragma once

#include "orx_common_stable_export.h"

#include "Error.h"

#include <QFileInfo>
#include <QList>
#include <QString>

#include <functional>
#include <utility>

namespace orx {

//! Copying into directories that people work in. Every entry appears whole or not at all and is durable when
//! the call returns; see FileCopy. Blocks on the disk; thread: any.
class ORX_COMMON_STABLE_EXPORT FileUtils {
public:
    class CopyFilesOptions {
    public:
        //! The values are fixed.
        enum class RecursionPolicy : int {
            FilesOnly = 0, //!< the files of the directory, not its sub-directories
            Recursive = 1
        };
        //! What happens to an entry whose name is taken in the target directory. The values are fixed.
        enum class DuplicateFilesPolicy : int {
            //! All names are looked at first; when one is taken, nothing is changed and the copy fails.
            Refuse = 0,
            //! A file is replaced in one step; a directory, too, by one that has the source's files and its
            //! own
            //! others. See DirectoryMerge.
            Overwrite = 1,
            //! What is there stays; a directory that is there is left alone as a whole.
            Skip = 2,
            //! The copy gets a free name: "run (2).raw".
            Rename = 3,
            //! Like Overwrite where the source's file has a later modification time; like Skip where not.
            OverwriteOlder = 4
        };

        CopyFilesOptions(RecursionPolicy recursion, DuplicateFilesPolicy duplicates)
            : m_recursion(recursion), m_duplicates(duplicates) {}
        RecursionPolicy recursionPolicy() const { return m_recursion; }
        DuplicateFilesPolicy duplicateFilesPolicy() const { return m_duplicates; }

    private:
        RecursionPolicy m_recursion;
        DuplicateFilesPolicy m_duplicates;
    };
    using DuplicateFilesPolicy = CopyFilesOptions::DuplicateFilesPolicy;

    //! Says which entries are copied; default-constructed: all.
    class CopyFilesValidator {
    public:
        CopyFilesValidator() = default;
        explicit CopyFilesValidator(std::function<bool(const QFileInfo&)> accepts)
            : m_accepts(std::move(accepts)) {}
        bool accepts(const QFileInfo& entry) const { return !m_accepts || m_accepts(entry); }

    private:
        std::function<bool(const QFileInfo&)> m_accepts;
    };

    //! The name of an entry of the source directory, and the name it gets in the target directory.
    using CustomName = std::pair<QString, QString>;

    //! Copies the entries of \a sourceDir, hidden ones included, into \a targetDir, which is made when it is
    //! missing. \a copiedNames (may be null) gets the names that were written in \a targetDir, those that
    //! were skipped left out, also after a failure. False, with the reason in the log, when an entry could
    //! not be copied, or when a custom name is not the name of one entry; entries copied before that stay.
    static bool copyFiles(const QString& sourceDir, const QString& targetDir, const CopyFilesOptions& options,
                          const CopyFilesValidator& validator, const QList<CustomName>& customNames,
                          QList<QString>* copiedNames);
    //! One file to the path \a target. True also when the policy says that nothing is to be copied.
    static bool copyFile(const QString& source, const QString& target, DuplicateFilesPolicy policy);

    //! The same with the reason: ErrorCode::AlreadyExists when the policy refuses, else errors of FileCopy.
    static Error tryCopyFiles(const QString& sourceDir, const QString& targetDir,
                              const CopyFilesOptions& options, const CopyFilesValidator& validator,
                              const QList<CustomName>& customNames, QList<QString>* copiedNames);
    static Error tryCopyFile(const QString& source, const QString& target, DuplicateFilesPolicy policy);

    //! \a name, or the first of "stem (2).suffix", "stem (3).suffix" ... that \a isTaken does not know. Never
    //! longer than 255 bytes of UTF-8.
    static QString freeName(const QString& name, const std::function<bool(const QString&)>& isTaken);
};

} // namespace orx
