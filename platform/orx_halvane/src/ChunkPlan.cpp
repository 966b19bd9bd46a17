#include "ChunkPlan.h"

#include <NetworkError.h>

#include <QCoreApplication>

#include <limits>

namespace orx {
namespace {

Error refused(const char* text, qint64 number) {
    return Error(ErrorDomain::Network, int(NetworkErrorCode::InvalidReply),
                 QCoreApplication::translate("orx::ChunkPlan", text).arg(number));
}

} // namespace

ChunkPlan::ChunkPlan(qint64 size, qint64 chunkSize, int count)
    : m_size(size), m_chunkSize(chunkSize), m_count(count) {}

Result<ChunkPlan> ChunkPlan::create(qint64 size, qint64 chunkSize) {
    if (size < 0)
        return refused("The server gave an upload the impossible size %1.", size);
    if (chunkSize < 1 || chunkSize > maxChunkSize)
        return refused("The server asks for chunks of %1 bytes, which this client cannot send.", chunkSize);
    const qint64 count = size / chunkSize + (size % chunkSize == 0 ? 0 : 1);
    if (count > std::numeric_limits<int>::max())
        return refused("The server asks for %1 chunks, which is too many.", count);
    return ChunkPlan(size, chunkSize, int(count));
}

} // namespace orx
