"""What a virtual machine needs: kernel, first filesystem, and in it the service as it is installed.

Foreign packages are downloaded once into build/cache/vm, by an apt with a configuration of its own, and
only unpacked, never installed: the machine's own list of packages stays as it is.
"""

import dataclasses
import fcntl
import functools
import glob
import lzma
import os
import re
import shutil
import stat
import struct
import subprocess
import sys

from state import TABLE

FOLDER = os.path.dirname(os.path.abspath(__file__))
PROJECT = os.path.dirname(os.path.dirname(FOLDER))
sys.path.insert(0, os.path.join(PROJECT, "tests", "support"))
import testkit  # noqa: E402,F401
CACHE = os.path.join(PROJECT, "build", "cache", "vm")

MODULES = ("usb-storage uas xhci-pci ehci-pci ohci-pci uhci-hcd sd_mod sdhci-pci mmc_block vfat nls_cp437 nls_ascii"
           " nls_iso8859-1 nls_utf8 ext4 crc32c_generic fuse").split()

# A card to reach a file server by, and where foreign programs are that the first filesystem has no room for; loaded by the
# tests that need them: "sh /vm/load network" and so on.
NETWORK = ["e1000"]
DISK = "virtio_pci virtio_blk ext4".split()

# The kernel's file server.
KSMBD = "ecb cmac ccm gcm ctr sha512_generic ksmbd tcp_diag".split()

# What a board's kernel has built in for an image that is its first filesystem: "sh /vm/load image".
IMAGE = "loop squashfs".split()

# Filesystems besides the service's five, loaded by the tests that need them: "sh /vm/load others".
OTHERS = "crc32_generic exfat f2fs btrfs xfs hfsplus udf isofs".split()

GUEST_FILES = {"init": "init", "vm/load": "load", "etc/vyhotplugd/evhook": "hook",
               "etc/vyhotplugd/vyhotplugd.conf": "vyhotplugd.conf"}
IMAGE_GUEST_FILES = {"init": "init-image", "vm/load": "load"}

# Where the service and its companions are installed, where their build puts them, and other names of theirs.
PROGRAMS = {"usr/bin/vyhotplugctl": "vyhotplugctl",
            "usr/sbin/vyhotplugd": "vyhotplugd", "usr/sbin/vyhotplug-agent": "vyhotplug-agent",
            "usr/sbin/vynas-ksmbd": "vynas-ksmbd", "usr/sbin/vynas-samba": "vynas-samba",
            "usr/libexec/vyhotplugd/mlabel": "libexec/mlabel",
            "usr/libexec/vyhotplugd/vyhotplug-prepare": "vyhotplug-prepare"}
LINKS = {"usr/sbin/vymount": "vyhotplugd", "usr/sbin/vyunmount": "vyhotplugd", "usr/sbin/vyhotpluginfo": "vyhotplugd",
         "usr/libexec/vyhotplugd/ntfsvlabel": "mlabel", "usr/libexec/vyhotplugd/vylabel": "mlabel",
         "var/run": "../run"}


@dataclasses.dataclass
class Kind:
    """One of the machines."""

    name: str
    architecture: str  # Debian's name of it
    kernel: str  # the package that names the newest kernel
    packages: tuple  # to be unpacked
    qemu: tuple
    modules: tuple = ()  # besides MODULES, loaded by the tests that need them
    libraries: tuple = ()  # folders, below root
    preset: str = "release"
    append: str = ""  # words for the kernel
    needed: tuple = ("@vm",)  # packages on this machine, for tests/support/install-packages
    server: bool = False  # with ksmbd's programs, and a disk with Samba's
    others: tuple = ()  # besides OTHERS
    suite: str = ""  # Debian's, for the kernel; this machine's unless named
    sysroot: str = ""  # the script of cmake/ that makes the service's C library, where it is not Debian's
    like: str = ""  # the machine that it shares kernel and foreign programs with
    image: str = ""  # the script that makes its first filesystem, in which nothing is the tests' own
    guest: str = "/vm/guest"  # where the program that looks at everything is
    can_be_kept: bool = False  # whether a machine that has booted can be written to a file, for others to go on from

    @property
    def folder(self):
        return os.path.join(CACHE, self.like or self.name)

    @property
    def root(self):
        """Where programs for the guest are taken from."""
        return os.path.join(self.folder, "root")

    @property
    def kernel_image(self):
        return os.path.join(self.folder, "kernel")

    @property
    def samba_disk(self):
        """An image with Samba's programs, for a disk that is only read."""
        return os.path.join(self.folder, "samba.img")

    @property
    def build(self):
        return os.path.join(PROJECT, "build", f"vm-{self.name}")

    @property
    def tree(self):
        """Where the service is built, once for all machines of a preset."""
        return os.path.join(PROJECT, "build", f"vm-{self.preset}")

    @property
    def initramfs(self):
        return os.path.join(self.build, "initramfs")


# ksmbd's programs, of Debian's next release and with its libraries: those of this one answer the kernel's questions in a
# form that its kernel has stopped to accept, and every share is unknown then.
SERVER_SUITE = "trixie"
SERVER_PACKAGES = ("ksmbd-tools", "libc6", "libglib2.0-0t64", "libatomic1", "libpcre2-8-0", "libnl-3-200",
                   "libnl-genl-3-200")
SERVER_PROGRAMS = ("adduser", "control", "mountd")

# Samba's, of this release as the service's C library is. They look for each other and for their libraries where they are
# installed: links lead from there to the disk that has them.
SAMBA_PROGRAMS = ("usr/sbin/smbd", "usr/bin/smbcontrol", "usr/bin/smbpasswd", "usr/bin/smbstatus",
                  "usr/libexec/samba/samba-dcerpcd", "usr/libexec/samba/rpcd_classic", "usr/libexec/samba/rpcd_lsad")
SAMBA_DISK = "samba"  # where it is mounted
SAMBA_LIBRARIES = ("lib/x86_64-linux-gnu", "usr/lib/x86_64-linux-gnu")
SAMBA_PLACES = (*SAMBA_LIBRARIES, *SAMBA_PROGRAMS)

PACKAGES = ("busybox-static", "ntfs-3g", "libntfs-3g89", "libc6", "libblkid1", "util-linux")
KINDS = {
    "x86": Kind("x86", "amd64", "linux-image-amd64", PACKAGES, ("qemu-system-x86_64", "-M", "pc"),
                ("dummy_hcd", "usb_f_mass_storage"), ("lib/x86_64-linux-gnu", "usr/lib/x86_64-linux-gnu"),
                # On a busy machine the kernel finds its timer late, and gives up.
                append="no_timer_check", can_be_kept=True),
    # For ksmbd, of Debian's next release: in this one's kernel (6.1.170 to 6.1.192 were tried) it dereferences a null
    # pointer when a client opens a directory.
    "server": Kind("server", "amd64", "linux-image-amd64", PACKAGES, ("qemu-system-x86_64", "-M", "pc"), (),
                   ("lib/x86_64-linux-gnu", "usr/lib/x86_64-linux-gnu"), append="no_timer_check", server=True, others=("ntfs3",),
                   suite=SERVER_SUITE, can_be_kept=True),
    # Not to be kept: where there is no MSI-X, QEMU's xHCI controller fails an assertion when its state is read.
    "mips": Kind("mips", "mipsel", "linux-image-4kc-malta", PACKAGES, ("qemu-system-mipsel", "-M", "malta"),
                 (), ("lib/mipsel-linux-gnu", "usr/lib/mipsel-linux-gnu"), preset="mips-uclibc",
                 needed=("@vm", "@vm-mips"), sysroot="build-uclibc-sysroot"),
}
KINDS["box"] = dataclasses.replace(KINDS["mips"], name="box", like="mips", image="packaging/image/build",
                                   guest="/mnt/guest", needed=("@vm", "@vm-mips", "@image"))


def say(text):
    print(text, flush=True)


def run(*command, quiet=True, **options):
    """Runs a program that must succeed."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE if quiet else None,
                          stderr=subprocess.STDOUT if quiet else None, check=False, **options)
    if done.returncode != 0:
        tail = (done.stdout or b"").decode(errors="replace")[-4000:]
        sys.exit(f"{' '.join(command)}: status {done.returncode}\n{tail}")
    return (done.stdout or b"").decode(errors="replace")


# ---- foreign packages ----


def archive():
    """Where this machine gets Debian's packages from."""
    return run("apt-get", "indextargets", "--format", "$(REPO_URI)", "Created-By: Packages", "Label: Debian").split()[0]


def apt(*arguments, suite="", **options):
    """apt with its state and its downloads in the cache, and both architectures; of another suite, if one is named."""
    folder = os.path.join(CACHE, "apt" + suite)
    for name in ("state/lists/partial", "cache/archives/partial"):
        os.makedirs(os.path.join(folder, name), exist_ok=True)
    with open(os.path.join(folder, "status"), "a", encoding="ascii"):
        pass
    config = os.path.join(folder, "apt.conf")
    names = "".join(f' "{name}";' for name in sorted({kind.architecture for kind in KINDS.values()}))
    with open(config, "w", encoding="ascii") as file:
        file.write(f'APT::Architectures {{{names} }};\nAPT::Sandbox::User "root";\n'
                   f'Dir::State "{folder}/state";\nDir::State::status "{folder}/status";\n'
                   f'Dir::Cache "{folder}/cache";\n')
        if suite:
            file.write(f'Dir::Etc::sourcelist "{folder}/sources.list";\nDir::Etc::sourceparts "{folder}";\n')
    if suite:
        with open(os.path.join(folder, "sources.list"), "w", encoding="ascii") as file:
            file.write(f"deb [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] {archive()} {suite} main\n")
    return run(*arguments, env={**os.environ, "APT_CONFIG": config, "LC_ALL": "C"}, **options)


def fetch(kind):
    """Kernel and programs of a machine, once; whoever comes meanwhile waits."""
    os.makedirs(CACHE, exist_ok=True)
    with open(os.path.join(CACHE, "lock"), "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not os.path.exists(os.path.join(kind.folder, "fetched")):
            download(kind)


def download(kind):
    say(f"{kind.name}: downloading kernel and programs")
    shutil.rmtree(kind.folder, ignore_errors=True)
    packages = os.path.join(kind.folder, "packages")
    os.makedirs(packages)
    for suite in {"", kind.suite}:
        apt("apt-get", "update", "-q", suite=suite)
    depends = apt("apt-cache", "depends", f"{kind.kernel}:{kind.architecture}", suite=kind.suite)
    kernel = re.search(r"Depends: (linux-image-\d[^\s:]*)", depends)[1] + f":{kind.architecture}"
    names = [f"{name}:{kind.architecture}" for name in kind.packages]
    apt("apt-get", "download", "-qq", kernel, suite=kind.suite, cwd=packages)
    apt("apt-get", "download", "-qq", *names, cwd=packages)
    names.insert(0, kernel)
    for package in glob.glob(packages + "/*.deb"):
        run("dpkg-deb", "-x", package, kind.root)
    shutil.rmtree(packages)
    image, = glob.glob(kind.root + "/boot/vmlinu*")
    unpack_kernel(image, kind.kernel_image)
    with open(os.path.join(kind.folder, "fetched"), "w", encoding="ascii") as file:
        file.write("\n".join(names) + "\n")


def fetch_server(kind):
    """The kernel's file server's programs, once; returns where they are."""
    root = os.path.join(kind.folder, "server")
    if os.path.exists(root):
        return root
    say(f"{kind.name}: downloading ksmbd's programs")
    packages = os.path.join(kind.folder, "server-packages")
    shutil.rmtree(packages, ignore_errors=True)
    os.makedirs(packages)
    apt("apt-get", "update", "-q", suite=SERVER_SUITE)
    names = [f"{name}:{kind.architecture}" for name in SERVER_PACKAGES]
    apt("apt-get", "download", "-qq", *names, suite=SERVER_SUITE, cwd=packages)
    for package in glob.glob(packages + "/*.deb"):
        run("dpkg-deb", "-x", package, packages + "/root")
    os.rename(packages + "/root", root)
    shutil.rmtree(packages)
    return root


def make_samba_disk(kind):
    """Samba's programs and what they are linked to, as a filesystem, once."""
    if os.path.exists(kind.samba_disk):
        return
    say(f"{kind.name}: downloading Samba")
    folder = os.path.join(kind.folder, "samba")
    shutil.rmtree(folder, ignore_errors=True)
    packages = os.path.join(folder, "packages")
    os.makedirs(packages + "/partial")
    apt("apt-get", "update", "-q")
    apt("apt-get", "install", "-qq", "--download-only", "--no-install-recommends", "-o", f"Dir::Cache::archives={packages}",
        f"samba:{kind.architecture}")
    for package in glob.glob(packages + "/*.deb"):
        run("dpkg-deb", "-x", package, folder + "/root")
    roots = (kind.root, folder + "/root")  # the C library is the one whose loader the first filesystem has
    places = (SAMBA_LIBRARIES[1] + "/samba", *SAMBA_LIBRARIES)
    disk = folder + "/disk"

    def take(path):
        """A file of the packages, and what it is linked to."""
        source = next(f"{root}/{path}" for root in roots if os.path.exists(f"{root}/{path}"))
        os.makedirs(os.path.dirname(f"{disk}/{path}"), exist_ok=True)
        shutil.copy(source, f"{disk}/{path}")
        for name in needed_by(source)[0]:
            library = next(f"{place}/{name}" for root in roots for place in places if os.path.exists(f"{root}/{place}/{name}"))
            if not os.path.exists(f"{disk}/{library}"):
                take(library)

    for program in SAMBA_PROGRAMS:
        take(program)
    run("mkfs.ext4", "-q", "-d", disk, "-O", "^has_journal", kind.samba_disk + ".part", "160M")
    os.rename(kind.samba_disk + ".part", kind.samba_disk)
    shutil.rmtree(folder)


def unpack_kernel(image, out):
    """Takes the kernel out of its self-extracting wrapper, so that the emulation need not unpack it."""
    with open(image, "rb") as file:
        wrapped = file.read()
    magic = b"\xfd7zXZ\0"
    at = wrapped.find(magic)
    while at >= 0:
        try:
            kernel = lzma.LZMADecompressor().decompress(wrapped[at:])
            break
        except lzma.LZMAError:
            at = wrapped.find(magic, at + 1)
    else:
        kernel = None
    if kernel is None:  # packed in another way: the machine unpacks it itself
        shutil.copy(image, out)
        return
    with open(out, "wb") as file:
        file.write(kernel if kernel.startswith(b"\x7fELF") else malta_elf(wrapped, kernel))


def malta_elf(wrapper, kernel):
    """An ELF file around the bare kernel, which runs where the wrapper would have put it.

    The wrapper's last act is a jump through t9: lui t9, HIGH; ori t9, t9, LOW; jalr t9.
    """
    load = 0x80100000
    start = re.search(rb"(..)\x19\x3c(..)\x39\x37\x09\xf8\x20\x03", wrapper, re.DOTALL)
    entry, = struct.unpack("<I", start[2] + start[1])
    page = 0x1000
    room = len(kernel) + (8 << 20)  # for what the kernel clears behind itself
    header = struct.pack("<16sHHIIIIIHHHHHH", b"\x7fELF\1\1\1", 2, 8, 1, entry, 52, 0, 0x70001001, 52, 32, 1, 40, 0, 0)
    segment = struct.pack("<IIIIIIII", 1, page, load, load, len(kernel), room, 7, page)
    return (header + segment).ljust(page, b"\0") + kernel


# ---- the first filesystem ----


class Archive:
    """A cpio archive of the form that the kernel unpacks ("newc")."""

    def __init__(self, path):
        self.file = open(path, "wb")
        self.count = 0
        self.folders = set()

    def _entry(self, name, mode, content=b""):
        self.count += 1
        raw = name.encode() + b"\0"
        fields = (self.count, mode, 0, 0, 1, 0, len(content), 0, 0, 0, 0, len(raw), 0)
        self.file.write(b"070701" + b"".join(b"%08X" % field for field in fields) + raw)
        self._pad()
        self.file.write(content)
        self._pad()

    def _pad(self):
        self.file.write(bytes(-self.file.tell() % 4))

    def folder(self, name):
        if name and name not in self.folders:
            self.folder(os.path.dirname(name))
            self.folders.add(name)
            self._entry(name, stat.S_IFDIR | 0o755)

    def content(self, name, content, mode=0o755):
        self.folder(os.path.dirname(name))
        self._entry(name, stat.S_IFREG | mode, content)

    def copy(self, name, source):
        with open(source, "rb") as file:
            self.content(name, file.read())

    def link(self, name, target):
        self.folder(os.path.dirname(name))
        self._entry(name, stat.S_IFLNK | 0o777, target.encode())

    def close(self):
        self._entry("TRAILER!!!", 0)
        self.file.close()


def needed_by(program):
    """The libraries and the loader that an executable names."""
    text = run("readelf", "-ld", program, env={**os.environ, "LC_ALL": "C"})
    names = re.findall(r"\(NEEDED\).*\[(.*)\]", text)
    loader = re.search(r"interpreter: (.*)\]", text)
    return names, loader and loader[1]


def add_program(archive, name, source, known, folders):
    """An executable with everything it is linked to; `known` is what the archive has already."""
    archive.copy(name, source)
    add_needed(archive, source, known, folders)


def add_needed(archive, program, known, folders):
    libraries, loader = needed_by(program)
    for library in libraries + ([loader] if loader else []):
        place = library.lstrip("/") if library.startswith("/") else "lib/" + library
        if place in known:
            continue
        known.add(place)
        paths = [os.path.join(folder, os.path.basename(library)) for folder in folders]
        found = [path for path in paths if os.path.exists(path)]
        if not found:
            sys.exit(f"{program} needs {library}, which is nowhere in {folders}")
        archive.copy(place, found[0])
        add_needed(archive, found[0], known, folders)


def add_server(archive, kind):
    """ksmbd's programs with libraries and a loader of their own, below /ksmbd."""
    root = fetch_server(kind)
    folders = [os.path.join(root, path) for path in kind.libraries]
    tools = os.path.join(root, "usr/libexec/ksmbd.tools")
    archive.copy("ksmbd/ksmbd.tools", tools)
    found = {}

    def visit(program):
        libraries, loader = needed_by(program)
        for name in libraries + ([os.path.basename(loader)] if loader else []):
            if name not in found:
                found[name] = next(path for path in (f"{folder}/{name}" for folder in folders) if os.path.exists(path))
                visit(found[name])

    visit(tools)
    for name, path in found.items():
        archive.copy(f"ksmbd/{name}", path)
    loader = os.path.basename(needed_by(tools)[1])
    for name in SERVER_PROGRAMS:
        archive.content(f"usr/sbin/ksmbd.{name}", f"#!/bin/sh\nexec /ksmbd/{loader} --argv0 ksmbd.{name} "
                        f"--library-path /ksmbd /ksmbd/ksmbd.tools \"$@\"\n".encode())


def module_files(kind):
    """The kernel's modules: name to path, and the names of those that are built in."""
    folder, = glob.glob(kind.root + "/lib/modules/*") + glob.glob(kind.root + "/usr/lib/modules/*")
    files = {}
    for place, _, names in os.walk(folder):
        for name in names:
            module, _, packed = name.partition(".ko")
            if packed in (".xz", "") and module != name:
                files[module.replace("-", "_")] = os.path.join(place, name)
    with open(folder + "/modules.builtin", encoding="ascii") as file:
        builtin = {os.path.basename(line.strip())[:-3].replace("-", "_") for line in file}
    return files, builtin


def module_content(path):
    """A module as it is loaded; some kernels' are packed, thousands of which nobody loads."""
    with (lzma.open if path.endswith(".xz") else open)(path, "rb") as file:
        return file.read()


def modules_in_order(kind, names):
    """These modules and what they depend on: name to content, each behind those it needs."""
    files, builtin = module_files(kind)
    order = {}

    def visit(name):
        name = name.strip().replace("-", "_")
        if not name or name in order or name in builtin:
            return
        content = module_content(files[name])
        info = re.search(rb"\0depends=([^\0]*)\0", content)
        for other in (info[1].decode() if info else "").split(","):
            visit(other)
        order[name] = content

    for name in names:
        visit(name)
    return order


# ---- the service ----


def build_service(kind):
    """Builds the service and its companions as for an appliance; returns the folder they are in."""
    run("cmake", "--preset", kind.preset, "-DVY_TESTS=OFF", "-B", kind.tree, cwd=PROJECT)
    targets = sorted({os.path.basename(path) for path in PROGRAMS.values()})
    run("cmake", "--build", kind.tree, "-j", str(os.cpu_count()), "--target", *targets)
    return os.path.join(kind.tree, "bin")


def build_sysroot(kind):
    """The C library for the service, below which its loader and libraries lie; none where it is Debian's."""
    return run(os.path.join(PROJECT, "cmake", kind.sysroot)).splitlines()[-1] if kind.sysroot else None


def build_guest_program(kind):
    compiler = {"amd64": "g++", "mipsel": "mipsel-linux-gnu-g++"}[kind.architecture]
    source = os.path.join(FOLDER, "guest", "guest.cpp")
    program = os.path.join(kind.build, "guest")
    if not os.path.exists(program) or os.path.getmtime(program) < os.path.getmtime(source):
        run(compiler, "-std=c++20", "-D_GNU_SOURCE", "-Wall", "-Wextra", "-Werror", "-O1", "-static", "-s",
            "-o", program, source)
    return program


def make_initramfs(kind, programs, sysroot):
    archive = Archive(kind.initramfs)
    known = set()
    for name in ("dev", "proc", "sys", "tmp", "run", "var", "mnt", "vm", "usr/bin", "usr/sbin"):
        archive.folder(name)
    for name, target in LINKS.items():
        archive.link(name, target)
    archive.content("etc/mtab", TABLE.encode(), 0o644)
    for name, source in GUEST_FILES.items():
        archive.copy(name, os.path.join(FOLDER, "guest", source))
    archive.copy("bin/busybox", os.path.join(kind.root, "bin", "busybox"))
    archive.copy("vm/guest", build_guest_program(kind))
    folders = [os.path.join(kind.root, path) for path in kind.libraries]
    for name in ("bin/ntfs-3g", "sbin/blkid"):
        add_program(archive, name, os.path.join(kind.root, name), known, folders)
    if kind.server:
        add_server(archive, kind)
        make_samba_disk(kind)
        archive.folder(SAMBA_DISK)
        for place in SAMBA_PLACES:
            archive.link(place, f"/{SAMBA_DISK}/{place}")
    if sysroot:
        folders = [os.path.join(sysroot, "lib")]
    for name, program in PROGRAMS.items():
        add_program(archive, name, os.path.join(programs, program), known, folders)
    add_modules(archive, kind, order=MODULES, more=kind.modules, others=(*OTHERS, *kind.others), network=NETWORK, disk=DISK,
                ksmbd=KSMBD)
    archive.close()


def add_modules(archive, kind, **lists):
    """Lists of modules for guest/load, and the modules in them."""
    added = set()
    for list_name, names in lists.items():
        order = modules_in_order(kind, names)
        for name in order.keys() - added:
            archive.content(f"modules/{name}.ko", order[name])
        added.update(order)
        archive.content(f"modules/{list_name}", "".join(name + "\n" for name in order).encode(), 0o644)


def make_image_initramfs(kind):
    """What an image is booted from, with the image in it; see guest/init-image."""
    image = run(os.path.join(PROJECT, kind.image), os.path.join(kind.build, "image"), kind.tree).splitlines()[-1]
    archive = Archive(kind.initramfs)
    for name in ("dev", "proc", "sys", "image", "usr/bin", "usr/sbin"):
        archive.folder(name)
    for name, source in IMAGE_GUEST_FILES.items():
        archive.copy(name, os.path.join(FOLDER, "guest", source))
    archive.copy("bin/busybox", os.path.join(kind.root, "bin", "busybox"))
    archive.copy("vm/guest", build_guest_program(kind))
    archive.copy("vm/image", image)
    add_modules(archive, kind, order=MODULES, image=IMAGE)
    archive.close()


@functools.cache
def prepare(name, build=True):
    """Makes everything that a machine of that kind starts from."""
    kind = KINDS[name]
    if build:
        run(os.path.join(PROJECT, "tests/support/install-packages"), *kind.needed, quiet=False)
    fetch(kind)
    if build or not os.path.exists(kind.initramfs):
        say(f"{name}: building the service")
        os.makedirs(kind.build, exist_ok=True)
        if kind.image:
            make_image_initramfs(kind)
            return kind
        sysroot = build_sysroot(kind)
        make_initramfs(kind, build_service(kind), sysroot)
    return kind
