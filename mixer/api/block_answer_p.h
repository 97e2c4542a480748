// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_BLOCK_ANSWER_P_H
#define QTOVELMIXER_MIXER_API_BLOCK_ANSWER_P_H

/// What a block's callback returns to the one who drives it. The numbers are RtAudio's.
namespace QTovelMixer::BlockAnswer {

constexpr int goOn = 0;
constexpr int drain = 1; ///< the stream ends when what it has was played
constexpr int abort = 2; ///< the stream ends at once

} // namespace QTovelMixer::BlockAnswer

#endif
