#pragma once

#include <QMutex>
#include <QMutexLocker>
#include <QObject>
#include <QSet>

// Qt's table of hooks for introspection tools: the fourth entry is called with every new object, the fifth
// with every one that goes.
extern quintptr Q_CORE_EXPORT qtHookData[];

namespace orx::testing {

//! Knows every QObject that was made since it was and still lives: the way to a subtask that no interface
//! hands out. One at a time.
class ObjectWatch {
public:
    ObjectWatch() {
        qtHookData[AddObject] = reinterpret_cast<quintptr>(&added);
        qtHookData[RemoveObject] = reinterpret_cast<quintptr>(&removed);
    }
    ~ObjectWatch() {
        qtHookData[AddObject] = 0;
        qtHookData[RemoveObject] = 0;
        const QMutexLocker lock(&mutex);
        objects.clear();
    }

    //! The only living object of a class; null when there is none or more than one. Thread: that of the
    //! objects.
    template <typename T>
    T* only() const {
        const QMutexLocker lock(&mutex);
        T* found = nullptr;
        for (QObject* object : std::as_const(objects)) {
            T* const candidate = qobject_cast<T*>(object);
            if (candidate != nullptr && found != nullptr)
                return nullptr;
            found = candidate != nullptr ? candidate : found;
        }
        return found;
    }

private:
    static constexpr int AddObject = 3;
    static constexpr int RemoveObject = 4;

    static void added(QObject* object) {
        const QMutexLocker lock(&mutex);
        objects.insert(object);
    }
    static void removed(QObject* object) {
        const QMutexLocker lock(&mutex);
        objects.remove(object);
    }

    static inline QMutex mutex;
    static inline QSet<QObject*> objects;
};

} // namespace orx::testing
