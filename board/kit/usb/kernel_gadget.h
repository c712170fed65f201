// SPDX-License-Identifier: Apache-2.0
// A gadget made through configfs, of our driver's function or of one of the kernel's own, which is
// what a board without our driver has, and kernel modules that come and go while the board runs.
// What fails throws. One thread.
#pragma once

#include <map>
#include <string>

namespace board {

constexpr char kUdc[] = "ff300000.usb";

class KernelGadget {
  public:
    // Makes it. `function` is "vexa", our driver's, or a name of the kernel's: "uac1", "uac2",
    // "SourceSink"; uac1 and uac2 are mono at 48 kHz, 16 bit each way unless `attributes` say
    // otherwise. Not bound yet.
    explicit KernelGadget(const std::string& function,
                          const std::map<std::string, std::string>& attributes = {});
    // Takes it apart.
    ~KernelGadget();
    KernelGadget(const KernelGadget&) = delete;
    KernelGadget& operator=(const KernelGadget&) = delete;

    void bind();
    void unbind();
    // Unbinds it and takes it apart, so that the function's module can be unloaded.
    void takeApart();
    // Makes it as it was before, not bound.
    void make();
    // The value of one of the function's attributes, without its line end.
    std::string attribute(const std::string& name) const;
    // What the kernel's controller says of the link: "not attached", "configured" and so on.
    static std::string state();

  private:
    const std::string functionFolder;  // its folder's path
    const std::map<std::string, std::string> attributes;
};

// Returns 0, or the errno that refused it; does not wait until the module is out of use.
int unloadModule(const std::string& name);
// With what it depends on; nothing when it is loaded already.
void loadModule(const std::string& name);

}  // namespace board
