#pragma once

#include "platform/error.h"

/// Dictation and speaking that could not be done.
class SpeechError : public CorvaneError
{
public:
    enum class Case {
        MicrophoneDenied,    ///< "Microphone access is required for dictation"
        RecordingFailed,     ///< "Could not start microphone recording"
        MissingRuntime,      ///< "Missing local runtime: whisper-cli"
        TranscriptionFailed, ///< "Local transcription failed"
        SpeakingFailed,      ///< "Could not speak the reply"
    };

    static SpeechError microphoneDenied()
    {
        return {Case::MicrophoneDenied, QStringLiteral("Microphone access is required for dictation")};
    }
    static SpeechError recordingFailed()
    {
        return {Case::RecordingFailed, QStringLiteral("Could not start microphone recording")};
    }
    static SpeechError missingRuntime() { return {Case::MissingRuntime, QStringLiteral("Missing local runtime: whisper-cli")}; }
    static SpeechError transcriptionFailed()
    {
        return {Case::TranscriptionFailed, QStringLiteral("Local transcription failed")};
    }
    static SpeechError speakingFailed()
    {
        return {Case::SpeakingFailed, QStringLiteral("Could not speak the reply")};
    }

    Case kind() const noexcept { return m_case; }

private:
    SpeechError(Case kind, QString description)
        : CorvaneError(std::move(description))
        , m_case(kind)
    {
    }

    Case m_case;
};
