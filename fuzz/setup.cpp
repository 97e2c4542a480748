// SPDX-License-Identifier: MIT
#include <QtCore/QString>

#include <cstdio>

// Runs once, before the first input. The lines about wrong input would only slow everything down.
extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/);

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/)
{
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &text) {
        if (type == QtFatalMsg)
            std::fprintf(stderr, "%s\n", qPrintable(text));
    });
    return 0;
}
