#pragma once

namespace tarvik {

/**
 * Keeps libxml2 quiet and off the network and the disk for as long as it lives, and notes when it
 * runs out of memory: many of its functions then leave something out and say nothing.
 */
class XmlSilence {
public:
    XmlSilence();
    XmlSilence(const XmlSilence&) = delete;
    XmlSilence& operator=(const XmlSilence&) = delete;
    ~XmlSilence();

    /**
     * To be called before a result of libxml2 is relied on.
     * @throws std::bad_alloc when an allocation has failed since the outermost object was made.
     */
    static void require_memory();
    /// @return whether that has happened.
    static bool out_of_memory() noexcept;

private:
    void* errorContext_;
    void (*errorHandler_)();
    void* printContext_;
    void (*printer_)(void* context, const char* format, ...);
    void (*entityLoader_)();
};

}  // namespace tarvik
