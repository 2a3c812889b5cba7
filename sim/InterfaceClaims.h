// Claims of a sensor's USB interfaces as other processes see them. A USB
// interface is claimed by one process at a time; two processes that run the
// same scenario share the sensor's flash image, so a lock file beside that
// image stands for the bus: one byte per interface, locked while the
// interface is open here. The kernel drops the locks with the process, as it
// releases the claims of a process that ends.
#pragma once

#include <array>
#include <string>

namespace vbridge {

class InterfaceClaims {
public:
    InterfaceClaims() = default;
    ~InterfaceClaims();

    InterfaceClaims(const InterfaceClaims&) = delete;
    InterfaceClaims& operator=(const InterfaceClaims&) = delete;

    // The lock file; empty: the sensor is not shared with other processes.
    void setPath(const std::string& path);
    const std::string& path() const { return path_; }

    // Takes the interface's claim. False when another process holds it. A
    // lock file that cannot be made shares nothing and refuses nothing.
    bool claim(int port);
    void release(int port);
    void releaseAll();
    // Another process holds the interface's claim.
    bool heldElsewhere(int port);

private:
    bool openFile();
    bool lock(int port, short type, bool query);

    std::string path_;
    int fd_ = -1;
    std::array<bool, 4> held_ { { false, false, false, false } };
};

} // namespace vbridge
