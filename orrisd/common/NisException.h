#pragma once

#include <karst/Exceptions.h>

#include <exception>
#include <string>

namespace nis {

/// Code words of the error family. Their texts show in composed messages and in logs.
inline constexpr char BAD_RECORD[] = "Bad Record";
inline constexpr char BAD_ARGUMENT[] = "Bad Argument";
inline constexpr char ZERO_POINTER[] = "Zero Pointer";
inline constexpr char WRONG_DOMAIN[] = "Wrong Domain";
inline constexpr char UNKNOWN_MAP[] = "Unknown Map";
inline constexpr char UNKNOWN_KEY[] = "Unknown Key";
inline constexpr char UNKNOWN_ZONE[] = "Unknown Zone"; ///< a code word without a class
inline constexpr char UNKNOWN_DC[] = "Unknown DC";
inline constexpr char FILE_SYSTEM_ERROR[] = "File System Error";
inline constexpr char FILE_OPEN_FAILED[] = "File Open Failed";
inline constexpr char FILE_WRITE_FAILED[] = "File Write Failed";
inline constexpr char FILE_READ_FAILED[] = "File Read Failed";
inline constexpr char FILE_CLOSE_FAILED[] = "File Close Failed";
inline constexpr char DATABASE_ERROR[] = "DatabaseError"; ///< without a blank
inline constexpr char BAD_CACHE_FILE[] = "Bad Cache File";
inline constexpr char BAD_SNAPSHOT_FILE[] = "Bad Snapshot File";
inline constexpr char SERVER_MISMATCH[] = "Server Mismatch";

/// Root of the program's own failures. Not for use by two threads at once: msg() fills a cache.
class NisException : public std::exception {
public:
    NisException(const std::string& message, const std::string& arg, const char* file,
                 unsigned line);
    NisException(const std::string& message, const char* arg, const char* file, unsigned line);
    NisException(const char* message, const char* arg, const char* file, unsigned line);
    NisException(const std::string& message, const char* file, unsigned line);
    NisException(const char* message, const char* file, unsigned line);
    ~NisException() override = default;

    /// The failure text given at construction.
    const char* what() const noexcept override { return m_message.c_str(); }
    /// The composed text: code words, message, source file and line. Composed once.
    virtual const std::string& msg();

    /// What is at fault (a map name, a key, a file), or empty.
    const std::string& arg() const { return m_arg; }
    const char* file() const { return m_file; }
    unsigned line() const { return m_line; }

private:
    std::string m_message;
    std::string m_arg;
    const char* m_file;
    unsigned m_line;
    std::string m_cachedMessage;
};

/// prefix, separator and rest in one text. A null prefix or rest contributes nothing and ends it.
std::string NisExMsgConcat(const char* prefix, char separator, const char* rest);

/// A level of the classification: a code word on top of `Base`. Callers catch the level they care
/// about; the code word is part of the type.
template <typename Base, const auto* CODE> class NisEx : public Base {
public:
    using Base::Base;
    ~NisEx() override = default;
    const std::string& msg() override {
        if (m_cachedMessage.empty()) {
            m_cachedMessage = NisExMsgConcat(*CODE, ':', Base::msg().c_str());
        }
        return m_cachedMessage;
    }

private:
    std::string m_cachedMessage;
};

using BadRecord = NisEx<NisException, &BAD_RECORD>;
using BadArgument = NisEx<NisException, &BAD_ARGUMENT>;
using ZeroPointer = NisEx<BadArgument, &ZERO_POINTER>;
using WrongDomain = NisEx<BadArgument, &WRONG_DOMAIN>;
using UnknownMap = NisEx<BadArgument, &UNKNOWN_MAP>;
using UnknownKey = NisEx<BadArgument, &UNKNOWN_KEY>;
using UnknownDC = NisEx<BadArgument, &UNKNOWN_DC>;
using FileSystemError = NisEx<NisException, &FILE_SYSTEM_ERROR>;
using FileOpenFailed = NisEx<FileSystemError, &FILE_OPEN_FAILED>;
using FileWriteFailed = NisEx<FileSystemError, &FILE_WRITE_FAILED>;
using FileReadFailed = NisEx<FileSystemError, &FILE_READ_FAILED>;
using FileCloseFailed = NisEx<FileSystemError, &FILE_CLOSE_FAILED>;
using BadSnapshotFile = NisEx<FileSystemError, &BAD_SNAPSHOT_FILE>;
using DatabaseError = NisEx<FileSystemError, &DATABASE_ERROR>;
using BadCacheFile = NisEx<DatabaseError, &BAD_CACHE_FILE>;
using ServerMismatch = NisEx<NisException, &SERVER_MISMATCH>;

} // namespace nis

/// NIS_THROW(nis::UnknownMap, mapName) or NIS_THROW(nis::BadCacheFile, "storing to", fileName).
#define NIS_THROW(Type, ...) throw Type(__VA_ARGS__, tessa::baseName(__FILE__), __LINE__)
