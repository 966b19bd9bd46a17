#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

namespace halvane::cli {

//! Shows how far a transfer is, from the transfer monitor, on standard error: one line that is rewritten on a
//! terminal, a plain line every half minute in a log, nothing when it is told to be quiet. Ends with its
//! object.
class ProgressReport : public QObject {
    Q_OBJECT
public:
    //! \a name is shown as it is: escape it before.
    ProgressReport(const QString& name, bool quiet, QObject* parent = nullptr);
    ~ProgressReport() override;

    //! "20.5 MiB in 0:03 (6.8 MiB/s)"; resumed bytes are named. Empty when nothing was transferred.
    QString summary() const;

private:
    void show();

    QString m_name;
    bool m_terminal;
    bool m_shown = false;
    QTimer m_timer;
    QElapsedTimer m_elapsed;
};

} // namespace halvane::cli
