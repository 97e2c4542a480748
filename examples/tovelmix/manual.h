// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_MANUAL_H
#define TOVELMIX_MANUAL_H

#include <QtCore/QString>

namespace tovelmix {

/// What --help prints: of one command, or, for a name that is none, of the whole program.
QString helpText(const QString &verb);

/// The same text as a page for man(1).
QString manualPage();

/// Completes commands and options in bash.
QString bashCompletion();

} // namespace tovelmix

#endif
