#pragma once

#include "common/misc.h"

#include <array>
#include <ostream>
#include <streambuf>
#include <string>

namespace tarvik {

/// A buffered output stream buffer over a descriptor of its own.
class DescriptorBuffer : public std::streambuf {
public:
    explicit DescriptorBuffer(TDescriptor file) noexcept;
    ~DescriptorBuffer() override { static_cast<void>(write_out()); }

    /// Writes what is left and has the system say whether all of it has arrived; the descriptor
    /// stays open. @return false with `errno` when what was written may be lost.
    bool close();

protected:
    int_type overflow(int_type next) override;
    int sync() override { return write_out() ? 0 : -1; }

private:
    bool write_out() noexcept;

    TDescriptor file_;
    std::array<char, 8192> buffer_;
};

/// A new, uniquely named file with a buffered output stream buffer over its descriptor.
class TmpFileBase {
protected:
    explicit TmpFileBase(const std::string& prefix);

    std::string name_;
    DescriptorBuffer buffer_;  ///< last: once there is a file, nothing can fail
};

/**
 * A temporary file that is an output stream. It is created beside its final destination, written,
 * and renamed into place by its owner. As long as the object lives, the file has a lock (flock), so
 * that it can be told from one that a killed process has left behind.
 */
class TmpFile : private TmpFileBase, public std::ostream {
public:
    /**
     * Creates the file, readable and writable by its owner only and closed on exec.
     * @param prefix     start of the name, normally a directory and a stem; six characters chosen
     * by the system follow.
     * @param autoclean  remove the file on destruction, unless it has been moved or removed by
     * then.
     * @throws SystemError (or ExSystemError<N>) when no file can be created.
     */
    TmpFile(const std::string& prefix, bool autoclean);
    TmpFile(const TmpFile&) = delete;
    TmpFile& operator=(const TmpFile&) = delete;
    ~TmpFile() override;

    /// The file's full name.
    const std::string& name() const noexcept { return name_; }

    /// The last step before the file takes its place: as a checked close, but the lock stays.
    /// @return false with `errno` when what was written may be lost.
    bool close() { return buffer_.close(); }

private:
    bool autoclean_;
};

/**
 * Removes what killed processes have left behind: regular files with the name of a `TmpFile` that
 * no living one has locked. What cannot be removed stays, and nothing is said.
 * @param prefix  as it was given to `TmpFile`. Whatever has six letters or digits after it must be
 *                a temporary file.
 */
void remove_stray_files(const std::string& prefix);

}  // namespace tarvik
