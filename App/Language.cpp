#include "App/Language.h"

#include "platform/SettingsStore.h"

#include <QCoreApplication>
#include <QLocale>
#include <QTranslator>

#include <memory>

namespace quorva {

QString Language::chosen(const SettingsStore& defaults) {
    const QString code = QString::fromStdString(defaults.stringForKey(Key).value_or(""));
    return code == "en" || code == "fr" ? code : QString();
}

void Language::choose(const QString& code, SettingsStore& defaults) {
    (void)defaults.setString(code.toStdString(), Key);
    use(code);
}

namespace {

std::unique_ptr<QTranslator> installed;

} // namespace

bool Language::isFrench() {
    return installed && installed->language().startsWith("fr");
}

void Language::use(const QString& code) {
    if (installed)
        QCoreApplication::removeTranslator(installed.get());
    installed = std::make_unique<QTranslator>();
    const QLocale locale = code.isEmpty() ? QLocale::system() : QLocale(code);
    // English needs no file: the texts are written in it.
    if (installed->load(locale, "quorvarecorder", "_", ":/i18n"))
        QCoreApplication::installTranslator(installed.get());
    else
        installed.reset();
}

} // namespace quorva
