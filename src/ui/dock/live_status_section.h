#pragma once

#include <QWidget>

class QLabel;

namespace vantorelle {

class SourceManager;

// The source manager's status sentence, with a live indicator while scores arrive.
class LiveStatusSection : public QWidget
{
    Q_OBJECT

public:
    explicit LiveStatusSection(SourceManager* sources, QWidget* parent = nullptr);

private:
    void refresh();

    SourceManager* m_sources;
    QLabel* m_indicator = nullptr;
    QLabel* m_status = nullptr;
};

} // namespace vantorelle
