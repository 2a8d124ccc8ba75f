#pragma once

namespace tk {

/// Owns one file descriptor and closes it; -1 means none. The handle moves, it never copies.
class Fd {
public:
    /// Takes over a descriptor.
    explicit Fd(int descriptor = -1) : descriptor(descriptor) {}
    Fd(Fd&& other) noexcept : descriptor(other.release()) {}
    Fd& operator=(Fd&& other) noexcept;
    ~Fd();

    /// The descriptor, which stays owned here; -1 when there is none.
    int get() const { return descriptor; }
    /// True when a descriptor is held.
    bool isOpen() const { return descriptor >= 0; }
    /// Gives the descriptor up to the caller, who closes it from now on.
    [[nodiscard]] int release();
    /// Closes the descriptor, if any, and takes over `other`.
    void reset(int other = -1);

private:
    int descriptor;
};

/// Opens on /dev/null whichever of descriptors 0, 1 and 2 is closed, so that no later socket gets one of
/// these numbers. Call once, before anything else is opened.
void reserveStandardDescriptors();

/// Lets the process open `count` descriptors, or as many as the system's own limit allows.
void allowDescriptors(unsigned count);

}  // namespace tk
