// SPDX-License-Identifier: Apache-2.0
// Files that others see. Nobody ever finds a new FIFO or socket with a wrong mode or group: it is
// made under a temporary name beside its own, and then renamed.
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <sys/socket.h>
#include <sys/stat.h>

#include "state.h"

static int fill_path(char* path, size_t size, const char* directory, const char* name) {
    const int length = snprintf(path, size, "%s/%s", directory, name);
    return length < 0 || (size_t)length >= size ? -ENAMETOOLONG : 0;
}

int uafd_private_address(struct sockaddr_un* address, const char* directory, const char* name) {
    memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    return fill_path(address->sun_path, sizeof address->sun_path, directory, name);
}

// The same with a suffix that no other thread uses at this time.
static int private_address(struct sockaddr_un* address, const uafd_private_place* place,
                           const char* name) {
    char beside[64];
    snprintf(beside, sizeof beside, "%s.%lx.%lx", name, (unsigned long)getpid(),
             (unsigned long)(uintptr_t)place);
    return uafd_private_address(address, place->directory, beside);
}

static int give_rights(const char* path, const uafd_private_place* place) {
    if (place->group != NO_GROUP && lchown(path, (uid_t)-1, place->group) != 0) {
        return -errno;
    }
    return chmod(path, place->mode) == 0 ? 0 : -errno;
}

int uafd_private_socket(int* opened) {
    *opened = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    return *opened < 0 ? -errno : 0;
}

int uafd_private_check_unused(const struct sockaddr_un* address) {
    int probe = -1;
    const int failed = uafd_private_socket(&probe);
    if (failed != 0) {
        return failed;
    }
    const int result = connect(probe, (const struct sockaddr*)address, sizeof *address);
    // A socket that is connected to another one refuses with EPERM.
    const int error = result == 0 || errno == EPERM ? EBUSY : errno;
    close(probe);
    return error == ENOENT || error == ECONNREFUSED ? 0 : -error;
}

// When several apps open at the same time, one gets the name and the others are refused.
static int bind_beside(int fd, const struct sockaddr_un* beside) {
    if (bind(fd, (const struct sockaddr*)beside, sizeof *beside) == 0) {
        return 0;
    }
    int error = errno == EADDRINUSE ? uafd_private_check_unused(beside) : -errno;
    if (error != 0) {
        return error;
    }
    // Left by an app that died at this point.
    if (unlink(beside->sun_path) != 0 && errno != ENOENT) {
        return -errno;
    }
    if (bind(fd, (const struct sockaddr*)beside, sizeof *beside) == 0) {
        return 0;
    }
    return errno == EADDRINUSE ? -EBUSY : -errno;
}

int uafd_private_bind(int socket, const uafd_private_place* place, const char* name) {
    struct sockaddr_un address;
    struct sockaddr_un beside;
    char beside_name[64];
    snprintf(beside_name, sizeof beside_name, "%s.new", name);
    int error = uafd_private_address(&address, place->directory, name);
    if (error == 0) {
        error = uafd_private_address(&beside, place->directory, beside_name);
    }
    if (error == 0) {
        error = bind_beside(socket, &beside);
    }
    if (error != 0) {
        return error;
    }
    error = uafd_private_check_unused(&address);
    if (error == 0) {
        error = give_rights(beside.sun_path, place);
    }
    if (error == 0 && rename(beside.sun_path, address.sun_path) == 0) {
        return 0;
    }
    error = error == 0 ? -errno : error;
    unlink(beside.sun_path);
    return error;
}

// Renames the finished file, unless the name already exists.
static int move_where_missing(const char* from, const char* path, const uafd_private_place* place) {
    int error = give_rights(from, place);
    if (error == 0 && link(from, path) != 0 && errno != EEXIST) {
        error = -errno;
    }
    unlink(from);
    return error;
}

int uafd_private_leave_closed_socket(const uafd_private_place* place, const char* name) {
    struct sockaddr_un address;
    struct sockaddr_un beside;
    int fd = -1;
    int error = uafd_private_address(&address, place->directory, name);
    if (error == 0) {
        error = private_address(&beside, place, name);
    }
    if (error == 0) {
        error = uafd_private_socket(&fd);
    }
    if (error != 0) {
        return error;
    }
    error = bind(fd, (const struct sockaddr*)&beside, sizeof beside) == 0 ? 0 : -errno;
    close(fd);
    return error == 0 ? move_where_missing(beside.sun_path, address.sun_path, place) : error;
}

static int make_fifo(const char* path, const uafd_private_place* place, const char* name) {
    struct sockaddr_un beside;
    int error = private_address(&beside, place, name);
    if (error != 0) {
        return error;
    }
    if (mkfifo(beside.sun_path, S_IRUSR | S_IWUSR) != 0) {
        return -errno;
    }
    return move_where_missing(beside.sun_path, path, place);
}

static int open_end(const char* path, int access, int* end) {
    *end = open(path, access | O_NONBLOCK | O_CLOEXEC);
    return *end < 0 ? -errno : 0;
}

// Opens the reading end first, which needs no partner; it is the writing end's.
int uafd_private_open_fifo(const uafd_private_place* place, const char* name, int* reader,
                           int* writer) {
    struct sockaddr_un address;  // for its path
    struct stat found;
    int error = uafd_private_address(&address, place->directory, name);
    if (error != 0) {
        return error;
    }
    error = open_end(address.sun_path, O_RDONLY, reader);
    if (error == -ENOENT) {
        error = make_fifo(address.sun_path, place, name);
        if (error == 0) {
            error = open_end(address.sun_path, O_RDONLY, reader);
        }
    }
    if (error != 0) {
        return error;
    }
    if (fstat(*reader, &found) != 0) {
        return -errno;
    }
    return S_ISFIFO(found.st_mode) ? open_end(address.sun_path, O_WRONLY, writer) : -EEXIST;
}

int uafd_private_touch_fifo(const uafd_private_place* place, const char* name, int is_reader) {
    struct sockaddr_un address;  // for its path
    int end = -1;
    int error = uafd_private_address(&address, place->directory, name);
    if (error == 0) {
        error = open_end(address.sun_path, is_reader ? O_RDONLY : O_WRONLY, &end);
    }
    if (error == 0) {
        close(end);
    } else if (error == -ENOENT) {
        error = make_fifo(address.sun_path, place, name);
    }
    return error == -ENXIO ? 0 : error;
}
