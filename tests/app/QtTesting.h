#pragma once

#include <QApplication>

namespace quorva::testing {

// The one application object of a test program, made on first use and never destroyed: destroyed among
// the static destructors, its clean-up crashes once a dialog's standard buttons have been shown.
inline QApplication& Application() {
    static int argc = 1;
    static char name[] = "quorva_tests";
    static char* argv[] = {name, nullptr};
    static QApplication* application = new QApplication(argc, argv);
    return *application;
}

} // namespace quorva::testing
