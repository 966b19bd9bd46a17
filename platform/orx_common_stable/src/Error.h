#pragma once

#include "Warnings.h"
#include "orx_common_stable_export.h"

#include <QList>
#include <QLoggingCategory>
#include <QSharedDataPointer>
#include <QString>

namespace orx {

//! Category "orx.error": the places errors pass through, at info level.
ORX_COMMON_STABLE_EXPORT const QLoggingCategory& errorLog();

//! Codes of the general domain. Each has one meaning wherever it is used.
enum class ErrorCode : int {
    NoError = 0,           //!< success
    General = 1,           //!< an operation could not be carried out; the message says why
    InvalidArgument = 2,   //!< the caller gave something of the wrong kind (reference, path, name, value)
    Canceled = 3,          //!< the operation was cancelled
    FileNotReadable = 4,   //!< a local file exists but cannot be opened or read
    FileNotWritable = 5,   //!< a local file or directory cannot be created or written
    FileChanged = 6,       //!< a local file changed while it was read or was to be replaced
    ParseError = 7,        //!< data does not have the form that it must have
    TimedOut = 8,          //!< a wait ended before what it waited for
    NotAuthenticated = 9,  //!< nobody is logged in at the server
    NotFound = 10,         //!< a local thing or a registration does not exist
    AlreadyExists = 11,    //!< what was to be made exists
    ChecksumMismatch = 12, //!< content differs from its checksum
    StorageFull = 13,      //!< the local disk has no room
    Busy = 14              //!< another process or task works on the same thing
};

//! Whose code an error carries. Equal numbers of different domains are different things.
enum class ErrorDomain : int {
    General = 0,        //!< ErrorCode
    Server = 1,         //!< the error code of a server's reply
    Network = 2,        //!< NetworkErrorCode: no usable reply
    OperatingSystem = 3 //!< errno
};

//! An error value: cheap to copy and to move, empty (no error) by default. Thread: any; a value belongs to
//! one thread at a time.
class [[nodiscard, gnu::visibility("default")]] Error {
public:
    struct TraceEntry {
        QString function; //!< signature
        QString file;     //!< source file
        int line = 0;
    };

    Error() noexcept;
    //! An error of the general domain. With NoError the value holds no error and the message is dropped.
    Error(ErrorCode code, const QString& message);
    //! An error of any domain; code 0 makes a value without error.
    Error(ErrorDomain domain, int code, const QString& message);
    //! The error of the operating system call that set \a errnoValue; ENOSPC and EDQUOT keep their errno.
    static Error fromErrno(int errnoValue, const QString& message);

    Error(const Error&);
    Error(Error &&) noexcept;
    Error& operator=(const Error&);
    Error& operator=(Error&&) noexcept;
    ~Error();

    bool hasError() const noexcept;
    //! 0 without an error.
    int code() const noexcept;
    //! The code as one of the general domain; NoError when there is none, General when the domain is another
    //! one.
    ErrorCode errorCode() const noexcept;
    ErrorDomain domain() const noexcept;
    bool is(ErrorCode code) const noexcept {
        return domain() == ErrorDomain::General && this->code() == int(code);
    }
    bool is(ErrorDomain domain, int code) const noexcept {
        return this->domain() == domain && this->code() == code;
    }
    bool isCanceled() const noexcept {
        return is(ErrorCode::Canceled);
    }
    //! May be empty: some errors of the server carry no text of their own.
    QString errorMessage() const;

    //! Warnings may accompany success as well as failure.
    const Warnings& warnings() const noexcept;
    void addWarning(const QString& text);
    void addWarnings(const Warnings& texts);

    //! Stamps the error with a place it passed through and logs it there (category "orx.error", info level);
    //! does nothing without an error. Use ORX_ECATCH.
    Error& ecatch(const char* function, const char* file, int line)&;
    Error&& ecatch(const char* function, const char* file, int line)&&;
    //! The places, innermost first.
    QList<TraceEntry> trace() const;
    //! Message, domain, code and the places, one a line: for people who look for a cause.
    QString traceText() const;

private:
    struct Data;
    Data& detached();
    QSharedDataPointer<Data> d;
};

} // namespace orx

//! Stamps \a error with this place and yields it.
#define ORX_ECATCH(error) ((error).ecatch(Q_FUNC_INFO, __FILE__, __LINE__))

//! Returns from the function with the stamped error of \a expression, when it holds one.
#define ORX_RETURN_ON_ERROR(expression)                                                                      \
    do {                                                                                                     \
        if (orx::Error orxError = (expression); orxError.hasError()) {                                       \
            orxError.ecatch(Q_FUNC_INFO, __FILE__, __LINE__);                                                \
            return orxError;                                                                                 \
        }                                                                                                    \
    } while (false)
