#include "NetworkRequest.h"

#include <algorithm>

namespace orx {

namespace {

bool sameName(const QByteArray& a, const QByteArray& b) {
    return a.compare(b, Qt::CaseInsensitive) == 0;
}

} // namespace

BodySink::~BodySink() = default;

QByteArray NetworkRequest::header(const QList<HttpHeader>& headers, const QByteArray& name) {
    const auto found = std::find_if(headers.begin(), headers.end(),
                                    [&](const HttpHeader& header) { return sameName(header.first, name); });
    return found == headers.end() ? QByteArray() : found->second;
}

void NetworkRequest::setHeader(const QByteArray& name, const QByteArray& value) {
    headers.removeIf([&](const HttpHeader& header) { return sameName(header.first, name); });
    headers.append({name, value});
}

} // namespace orx
