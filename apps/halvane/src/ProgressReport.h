#pragma once

#include "TextForms.h"

#include <HalvaneRateEstimator.h>

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <functional>
#include <optional>

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

    //! How far a transfer of several files is, which the monitor does not know; nothing for a single file.
    void setTree(std::function<std::optional<TreeState>()> tree) { m_tree = std::move(tree); }
    //! What the line says, of work of which the monitor knows nothing.
    void setLine(std::function<QString()> line) { m_line = std::move(line); }
    //! Takes the line off the terminal; for who writes something else there.
    void hide();
    //! Hides it until told otherwise, for a question that stands there until it is answered.
    void setPaused(bool paused);

    //! "20.5 MiB in 0:03 (6.8 MiB/s)"; resumed bytes are named. Empty when nothing was transferred.
    QString summary() const;

private:
    void show();

    QString line();

    QString m_name;
    std::function<std::optional<TreeState>()> m_tree;
    std::function<QString()> m_line;
    bool m_terminal;
    bool m_shown = false;
    bool m_paused = false;
    QTimer m_timer;
    QElapsedTimer m_elapsed;
    //! Of the bytes of a tree that are done, moved or not.
    orx::HalvaneRateEstimator m_done;
};

} // namespace halvane::cli
