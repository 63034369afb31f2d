#pragma once

namespace talvoem::server {

// Marks the calling thread as serving the connection `fd` (borrowed) for the
// scope's life, for the functions of TalvoemConnection.h. Scopes nest: the
// previous connection is restored when one ends.
class ConnectionScope {
public:
    explicit ConnectionScope(int fd);
    ~ConnectionScope();
    ConnectionScope(const ConnectionScope&) = delete;
    ConnectionScope& operator=(const ConnectionScope&) = delete;

private:
    int previous_;
};

}  // namespace talvoem::server
