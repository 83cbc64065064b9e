// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <memory>

#include <juce_core/juce_core.h>

#include "filter/filter_document.h"

/// Reading of filter documents from streams. Job results: 0 done, 2 refused by the parser, 3 not read or
/// timed out.
namespace korvo::filter {

using korvo::parser::FIIR::IFIIRCallback;

inline constexpr int kJobDone = 0;
inline constexpr int kJobRefused = 2;
inline constexpr int kJobNotRead = 3;

inline constexpr int kReadLimitMs = 10000;

/// Longer documents are refused unread: the tree that rapidxml makes can take 25 times the size of its text.
/// The largest sensible document (8 channels, 8 rates, 2 modes, 8192 taps) has a quarter of this.
inline constexpr std::size_t kLongestDocument = std::size_t{64} << 20;

/// Reads a document on a thread of the filter job pool and waits for it, at most `limitMs`. The receiver is
/// called on that thread. After a time-out the job, which may still run, touches neither the stream nor the
/// receiver, so both may be freed. To be sure of that the call outlasts its limit while one call into either
/// is in progress; a stream that can block for long should be handed over instead.
/// @return a job result; 3 too where the stream or the receiver is null
/// Threads: any but the pool's own.
int readFilterDocument(juce::InputStream* stream, IFIIRCallback* receiver, int limitMs = kReadLimitMs);

/// The same with a stream that the job frees when it is done with it. Returns in time even where the stream
/// blocks.
int readFilterDocument(std::unique_ptr<juce::InputStream> stream, IFIIRCallback* receiver,
                       int limitMs = kReadLimitMs);

/// Reads a stream from its start to its end and parses it, on the calling thread. What a receiver throws and
/// what happens for want of memory counts as refused. The text ends at its first zero byte.
/// @return a job result
int loadFilterDocument(juce::InputStream* stream, IFIIRCallback* receiver) noexcept;

} // namespace korvo::filter
