#pragma once

#include <ResourceReference.h>

#include <QMap>
#include <QMetaEnum>
#include <QMutex>
#include <QMutexLocker>

namespace orx {

//! Which scheme has which factory callable. Thread: any. Internal to the library.
template <typename Factory>
class SchemeRegistry {
public:
    static SchemeRegistry& instance() {
        static SchemeRegistry registry;
        return registry;
    }
    //! Replaces the factory that the scheme had.
    void insert(ResourceReference::Scheme scheme, Factory factory) {
        const QMutexLocker lock(&m_mutex);
        m_factories.insert(scheme, std::move(factory));
    }
    void remove(ResourceReference::Scheme scheme) {
        const QMutexLocker lock(&m_mutex);
        m_factories.remove(scheme);
    }
    //! A copy, to be called without the lock: a factory may register or ask for schemes itself. Empty when
    //! the scheme has none.
    Factory find(ResourceReference::Scheme scheme) const {
        const QMutexLocker lock(&m_mutex);
        return m_factories.value(scheme);
    }

private:
    mutable QMutex m_mutex;
    QMap<ResourceReference::Scheme, Factory> m_factories;
};

//! The name of the enumerator; the number of a value that has none.
inline QString schemeName(ResourceReference::Scheme scheme) {
    const char* key = QMetaEnum::fromType<ResourceReference::Scheme>().valueToKey(int(scheme));
    return key ? QString::fromLatin1(key) : QString::number(int(scheme));
}

} // namespace orx
