#include "tests/support/QtWarnings.h"

#include <QString>
#include <QtGlobal>

namespace {

QList<QByteArray> g_warnings;

void keepWarning(QtMsgType, const QMessageLogContext&, const QString& text) {
    g_warnings.append(text.toUtf8());
}

}  // namespace

QtWarnings::QtWarnings() {
    g_warnings.clear();
    qInstallMessageHandler(keepWarning);
}

QtWarnings::~QtWarnings() {
    qInstallMessageHandler(nullptr);
}

const QList<QByteArray>& QtWarnings::lines() const {
    return g_warnings;
}

void QtWarnings::clear() {
    g_warnings.clear();
}
