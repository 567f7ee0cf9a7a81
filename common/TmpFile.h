#pragma once

#include <ext/stdio_filebuf.h>

#include <ostream>
#include <string>

namespace tarvik {

/// A new, uniquely named file with a buffered output stream buffer over its descriptor.
class TmpFileBase {
protected:
    explicit TmpFileBase(const std::string& prefix);

    std::string name_;
    __gnu_cxx::stdio_filebuf<char> buffer_;
};

/**
 * A temporary file that is an output stream. It is created beside its final destination, written,
 * and renamed into place by its owner.
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

private:
    bool autoclean_;
};

}  // namespace tarvik
