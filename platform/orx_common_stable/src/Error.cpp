#include "Error.h"

#include <QSharedData>

#include <cstring>

namespace orx {

Q_LOGGING_CATEGORY(errorLog, "orx.error", QtWarningMsg)

struct Error::Data : QSharedData {
    ErrorDomain domain = ErrorDomain::General;
    int code = 0;
    QString message;
    Warnings warnings;
    QList<TraceEntry> trace;
};

namespace {

const Warnings& noWarnings() {
    static const Warnings none;
    return none;
}

const char* domainName(ErrorDomain domain) {
    switch (domain) {
    case ErrorDomain::General:
        return "general";
    case ErrorDomain::Server:
        return "server";
    case ErrorDomain::Network:
        return "network";
    case ErrorDomain::OperatingSystem:
        return "operating system";
    }
    return "unknown";
}

} // namespace

Error::Error() noexcept = default;
Error::Error(const Error&) = default;
Error::Error(Error&&) noexcept = default;
Error& Error::operator=(const Error&) = default;
Error& Error::operator=(Error&&) noexcept = default;
Error::~Error() = default;

Error::Error(ErrorCode code, const QString& message) : Error(ErrorDomain::General, int(code), message) {}

Error::Error(ErrorDomain domain, int code, const QString& message) {
    if (code == 0)
        return;
    Data& data = detached();
    data.domain = domain;
    data.code = code;
    data.message = message;
}

Error Error::fromErrno(int errnoValue, const QString& message) {
    const QString reason = QString::fromLocal8Bit(std::strerror(errnoValue));
    return Error(ErrorDomain::OperatingSystem, errnoValue, message + QStringLiteral(": ") + reason);
}

Error::Data& Error::detached() {
    if (!d)
        d = new Data;
    return *d;
}

bool Error::hasError() const noexcept {
    return d && d.constData()->code != 0;
}

int Error::code() const noexcept {
    return d ? d.constData()->code : 0;
}

ErrorCode Error::errorCode() const noexcept {
    if (!hasError())
        return ErrorCode::NoError;
    return domain() == ErrorDomain::General ? ErrorCode(code()) : ErrorCode::General;
}

ErrorDomain Error::domain() const noexcept {
    return d ? d.constData()->domain : ErrorDomain::General;
}

QString Error::errorMessage() const {
    return d ? d.constData()->message : QString();
}

const Warnings& Error::warnings() const noexcept {
    return d ? d.constData()->warnings : noWarnings();
}

void Error::addWarning(const QString& text) {
    detached().warnings.append(text);
}

void Error::addWarnings(const Warnings& texts) {
    if (!texts.isEmpty())
        detached().warnings.append(texts);
}

Error& Error::ecatch(const char* function, const char* file, int line) & {
    if (!hasError())
        return *this;
    detached().trace.append({QString::fromUtf8(function), QString::fromUtf8(file), line});
    qCInfo(errorLog).noquote() << errorMessage() << "| code" << code() << '(' << domainName(domain())
                               << ") at" << function << file << line;
    return *this;
}

Error&& Error::ecatch(const char* function, const char* file, int line) && {
    static_cast<Error&>(*this).ecatch(function, file, line);
    return std::move(*this);
}

QList<Error::TraceEntry> Error::trace() const {
    return d ? d.constData()->trace : QList<TraceEntry>();
}

QString Error::traceText() const {
    if (!hasError())
        return QString();
    QString text = QStringLiteral("%2 (%3 error %1)")
                       .arg(QString::number(code()), errorMessage(), QLatin1StringView(domainName(domain())));
    for (const TraceEntry& entry : trace())
        text += QStringLiteral("\n    at ") + entry.function + QStringLiteral("\n       ") + entry.file +
                u':' + QString::number(entry.line);
    return text;
}

} // namespace orx
