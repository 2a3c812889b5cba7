#include "sim/InterfaceClaims.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace vbridge {

InterfaceClaims::~InterfaceClaims()
{
    setPath(std::string());
}

void InterfaceClaims::setPath(const std::string& path)
{
    if (path == path_)
        return;
    releaseAll();
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
    path_ = path;
}

bool InterfaceClaims::openFile()
{
    if (fd_ >= 0)
        return true;
    if (path_.empty())
        return false;
    fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    return fd_ >= 0;
}

// Open file description locks: owned by this descriptor, so they conflict
// with any other opening of the file, in this process or another one.
bool InterfaceClaims::lock(int port, short type, bool query)
{
    struct flock range { };
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = port;
    range.l_len = 1;
    if (query) {
        if (::fcntl(fd_, F_OFD_GETLK, &range) != 0)
            return false;
        return range.l_type != F_UNLCK;
    }
    return ::fcntl(fd_, F_OFD_SETLK, &range) == 0;
}

bool InterfaceClaims::claim(int port)
{
    if (!openFile())
        return true;
    if (!lock(port, F_WRLCK, false))
        return errno != EAGAIN && errno != EACCES;
    held_[static_cast<size_t>(port)] = true;
    return true;
}

void InterfaceClaims::release(int port)
{
    if (fd_ < 0 || !held_[static_cast<size_t>(port)])
        return;
    lock(port, F_UNLCK, false);
    held_[static_cast<size_t>(port)] = false;
}

void InterfaceClaims::releaseAll()
{
    for (int port = 0; port < static_cast<int>(held_.size()); ++port)
        release(port);
}

bool InterfaceClaims::heldElsewhere(int port)
{
    if (held_[static_cast<size_t>(port)] || !openFile())
        return false;
    return lock(port, F_WRLCK, true);
}

} // namespace vbridge
