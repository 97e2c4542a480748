// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_MIXER_API_RTAUDIO_ANSWER_P_H
#define QTOVELMIXER_MIXER_API_RTAUDIO_ANSWER_P_H

#include <mixer/api/rtaudio_driver_p.h>

namespace QTovelMixer {

/// What a call into RtAudio came to.
struct Answer
{
    RtAudioErrorType type = RTAUDIO_NO_ERROR;
    bool threw = false;
    std::string text; ///< of an error

    bool failed() const { return threw || type != RTAUDIO_NO_ERROR; }
};

/// Threads: the control thread.
template <typename Call>
Answer attempt(RtAudioDriver &driver, Call call)
{
    Answer answer;
    try {
        answer.type = call();
        // A warning has been logged by the error callback, and nothing has failed.
        if (answer.type == RTAUDIO_WARNING)
            answer.type = RTAUDIO_NO_ERROR;
        if (answer.type != RTAUDIO_NO_ERROR)
            answer.text = driver.errorText();
    } catch (...) {
        answer.threw = true;
    }
    return answer;
}

/// Logs what failed, in the words of `operation`; `call` comes with the colon that follows it.
/// Answers whether it failed.
bool logFailure(const Answer &answer, const char *operation, const char *call);

} // namespace QTovelMixer

#endif
