#pragma once

#include <QApplication>

namespace quorva::testing {

// The one application object of a test program, made on first use and kept to its end.
inline QApplication& Application() {
    static int argc = 1;
    static char name[] = "quorva_tests";
    static char* argv[] = {name, nullptr};
    static QApplication application(argc, argv);
    return application;
}

} // namespace quorva::testing
