#pragma once

#include "orx_halvane_export.h"

#include <QByteArray>

#include <memory>

namespace orx {

//! Buffers of one size that are used again instead of being allocated for every chunk. Thread: any. Buffers
//! may outlive the pool.
class ORX_HALVANE_EXPORT BufferPool {
public:
    //! \a keep: how many unused buffers stay allocated.
    BufferPool(qint64 bufferSize, int keep);
    ~BufferPool();

    //! A buffer of the pool's size with any content; it comes back when its last holder lets go.
    std::shared_ptr<QByteArray> take();

private:
    struct Store;
    std::shared_ptr<Store> m_store;
    qint64 m_bufferSize;
};

} // namespace orx
