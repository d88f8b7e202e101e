#ifndef VI_CONNECTOR_SIGPIPE_BLOCK_HPP
#define VI_CONNECTOR_SIGPIPE_BLOCK_HPP

namespace vi_connector {

/// Blocks SIGPIPE in the calling thread while it lives: OpenSSL writes to the
/// socket with write(), and a peer that reset the connection must fail that
/// write, not end the process. A SIGPIPE raised meanwhile is discarded.
class SigpipeBlock {
public:
    SigpipeBlock();
    ~SigpipeBlock();
    SigpipeBlock(const SigpipeBlock&) = delete;
    SigpipeBlock& operator=(const SigpipeBlock&) = delete;

    /// Takes a SIGPIPE raised in this thread so far.
    static void Discard();

private:
    bool wasPending_ = false;
    bool wasBlocked_ = false;
};

}  // namespace vi_connector

#endif  // VI_CONNECTOR_SIGPIPE_BLOCK_HPP
