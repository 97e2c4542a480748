// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_VERIFY_H
#define TOVELMIX_VERIFY_H

#include <tovelmix/raw_input.h>

#include <QtCore/QString>

namespace tovelmix {

struct Verdict
{
    bool equal = false;
    QString text = {};  ///< one line: what was compared, or the first difference
    QString error = {}; ///< one line; the take could not be read at all
};

/// Compares a take, sample by sample, with its input played in a loop from its first frame.
Verdict verify(const RawInput &input, const QString &takePath);

} // namespace tovelmix

#endif
