#pragma once

#include <QList>

#include <deque>
#include <mutex>
#include <shared_mutex>

namespace orx {

//! A value of an enumeration that grows at run time: refers to a record that lives as long as the process.
//! Copied like a pointer; never null unless default-constructed. Two values are equal when their records are,
//! so that a type that two libraries describe alike is one type.
//!
//! \tparam Data the record: copyable, with operator==. Thread: any, since records never change.
template <class Data>
class ExtendableEnumRef {
public:
    ExtendableEnumRef() = default;
    //! \a record outlives the process's use of it.
    constexpr explicit ExtendableEnumRef(const Data* record) : m_record(record) {}

    bool isNull() const { return !m_record; }
    //! Not for a null value.
    const Data& data() const { return *m_record; }
    const Data* operator->() const { return m_record; }
    const Data& operator*() const { return *m_record; }

    friend bool operator==(ExtendableEnumRef a, ExtendableEnumRef b) {
        return a.m_record == b.m_record || (a.m_record && b.m_record && *a.m_record == *b.m_record);
    }

private:
    const Data* m_record = nullptr;
};

//! The records of an extendable enumeration, in the order in which they were added. Records are never removed
//! and keep their addresses. Thread: any.
template <class Data>
class ExtendableEnum {
public:
    //! The value of \a record; one that equals a record that is there gives that one's value.
    ExtendableEnumRef<Data> add(const Data& record) {
        const std::unique_lock lock(m_mutex);
        for (const Data& known : m_records) {
            if (known == record)
                return ExtendableEnumRef<Data>(&known);
        }
        return ExtendableEnumRef<Data>(&m_records.emplace_back(record));
    }

    //! The first value whose record \a predicate accepts; null when there is none. \a predicate must not add
    //! records.
    template <typename Predicate>
    ExtendableEnumRef<Data> find(Predicate predicate) const {
        const std::shared_lock lock(m_mutex);
        for (const Data& known : m_records) {
            if (predicate(known))
                return ExtendableEnumRef<Data>(&known);
        }
        return {};
    }

    QList<ExtendableEnumRef<Data>> values() const {
        const std::shared_lock lock(m_mutex);
        QList<ExtendableEnumRef<Data>> all;
        for (const Data& known : m_records)
            all.append(ExtendableEnumRef<Data>(&known));
        return all;
    }

private:
    mutable std::shared_mutex m_mutex;
    std::deque<Data> m_records; // grows without moving what it holds
};

} // namespace orx
