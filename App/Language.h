#pragma once

#include <QString>

namespace quorva {

class SettingsStore;

// The window speaks English, the language it is written in, or French. The recorder's own messages stay
// English whatever the choice: they are the texts that OSC reads too.
//
// Threads: the main thread only, once the application object exists. use() and choose() swap the
// translator that the whole application reads, and widgets retranslate themselves from the change event
// it sends, at once, on that thread; isFrench() reads the same unguarded translator. None of them waits:
// choose() saves the choice without waiting for the disk.
class Language {
public:
    static constexpr const char* Key = "org.quorva.QuorvaRecorder.language";

    // "en", "fr", or "" to follow the system's locale.
    static QString chosen(const SettingsStore& defaults);
    static void choose(const QString& code, SettingsStore& defaults);
    // Installs the translation of `code` ("": the system's locale's) in place of the one installed
    // before; widgets hear of it as a language change. Needs the application object.
    static void use(const QString& code);
    // Whether the texts installed by use() are French.
    static bool isFrench();
};

} // namespace quorva
