#include "table_gen.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace tablegen {
namespace {

// splitmix64: the standard distributions differ between libraries, this
// gives the same table everywhere.
class Rng {
 public:
  explicit Rng(uint64_t variant) : state_(variant * 0x2545f4914f6cdd1dULL) {}
  uint64_t Next() {
    uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return z ^ (z >> 31);
  }
  unsigned Below(unsigned n) { return static_cast<unsigned>(Next() % n); }
  bool PerMille(unsigned p) { return Below(1000) < p; }
  template <size_t N>
  const char *Pick(const char *const (&list)[N]) {
    return list[Below(N)];
  }

 private:
  uint64_t state_;
};

std::string Text(const char *format, ...) __attribute__((format(printf, 1, 2)));
std::string Text(const char *format, ...) {
  char buf[256];
  va_list args;
  va_start(args, format);
  vsnprintf(buf, sizeof buf, format, args);
  va_end(args);
  return buf;
}

void Put(devtab::Entry *e, const char *name, std::string value) {
  devtab::Pair &p = e->AddPair();
  p.name = name;
  p.value = std::move(value);
}

devtab::Entry Head(std::string alias, std::string cdevice = "", std::string bdevice = "",
                   std::string pathname = "") {
  devtab::Entry e;
  e.alias = std::move(alias);
  e.positional[0] = std::move(cdevice);
  e.positional[1] = std::move(bdevice);
  e.positional[2] = std::move(pathname);
  return e;
}

// Days from 1970-01-01 to a proleptic Gregorian date.
long DaysFromCivil(int y, unsigned m, unsigned d) {
  y -= m <= 2;
  const long era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? static_cast<unsigned>(-3) : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<long>(doe) - 719468;
}

const char *const kOnline[] = {"online", "online", "online", "online", "offline"};
const char *const kEnabled[] = {"enabled", "enabled", "enabled", "disabled"};

class Generator {
 public:
  Generator(uint64_t variant, const std::function<void(const devtab::Entry &)> &emit)
      : rng_(variant), emit_(emit) {}

  void Run(size_t count) {
    size_t done = 0;
    while (done < count) {
      size_t budget = count - done;
      group_.clear();
      unsigned kind = rng_.Below(100);
      if (kind < 30 && budget >= 3) {
        ScsiBus(budget);
      } else if (kind < 55 && budget >= 2) {
        SerialBoard(budget);
      } else if (kind < 80) {
        Network();
      } else if (kind < 93) {
        Printer();
      } else {
        Cdrom();
      }
      for (devtab::Entry &e : group_) {
        Extras(&e);
        emit_(e);
      }
      done += group_.size();
    }
  }

 private:
  // Stamps as the library writes them, and the odd alias_status.
  void Extras(devtab::Entry *e) {
    if (rng_.PerMille(350)) {
      int year = 97 + static_cast<int>(rng_.Below(3));
      unsigned month = rng_.Below(12), day = 1 + rng_.Below(28);
      long days = DaysFromCivil(1900 + year, month + 1, day);
      long yday = days - DaysFromCivil(1900 + year, 1, 1);
      long wday = (days + 4) % 7;  // 1 January 1970 was a Thursday
      unsigned hour = rng_.Below(24), min = rng_.Below(60), sec = rng_.Below(60);
      unsigned dst = rng_.Below(2);
      Put(e, "ObjTimestamp", Text("%04d,%02u,%02u,%02u,%02u,%02u,%1ld,%03ld,%02u", year, month, day,
                                  hour, min, sec, wday, yday, dst));
    }
    if (rng_.PerMille(5)) {
      static const char *const kStatus[] = {"retired", "moved", "reserved"};
      Put(e, "alias_status", rng_.Pick(kStatus));
    }
  }

  void ScsiBus(size_t budget) {
    unsigned bus = buses_++;
    devtab::Entry c = Head(Text("scsi%u", bus));
    static const char *const kType[] = {"scsi", "fast-scsi", "wide-scsi"};
    static const char *const kModel[] = {"2940", "2944", "3940", "1542"};
    Put(&c, "class", "controller");
    Put(&c, "type", rng_.Pick(kType));
    Put(&c, "desc", rng_.PerMille(100) ? Text("Adaptec \"AHA-%s\" host adapter", rng_.Pick(kModel))
                                      : Text("SCSI host adapter %u", bus));
    Put(&c, "ObjContains", "");
    Put(&c, "irq", Text("%u", 9 + rng_.Below(7)));
    Put(&c, "resetfunc", "scsireset");
    Put(&c, "scancmd", Text("/sbin/scsiscan -b %u", bus));
    group_.push_back(std::move(c));

    std::string contains;
    unsigned want = 1 + rng_.Below(4), target = 0;
    for (; target < want && group_.size() + 2 <= budget; ++target) {
      size_t room = budget - group_.size() - 1;
      unsigned parts = 1 + rng_.Below(7);
      if (parts > room) parts = static_cast<unsigned>(room);
      unsigned d = Disk(bus, target, parts);
      contains += Text("%sdisk%u", contains.empty() ? "" : ",", d);
    }
    if (group_.size() < budget && rng_.PerMille(300)) {
      unsigned t = Tape(bus, target);
      contains += Text(",tape%u", t);
    }
    devtab::Entry &ctl = group_.front();
    ctl.pairs[ctl.Find("ObjContains")].value = contains;
  }

  unsigned Disk(unsigned bus, unsigned target, unsigned parts) {
    static const char *const kSize[] = {"2.1", "4.3", "9.1", "18.2", "36.4", "73.4"};
    static const char *const kVendor[] = {"SEAGATE", "QUANTUM", "FUJITSU", "IBM", "HP"};
    static const char *const kCaps[] = {"read,write,format", "read,write",
                                        "read,write,format,verify"};
    unsigned d = disks_++;
    bool ide = rng_.PerMille(150);
    devtab::Entry e = Head(Text("disk%u", d), Text("/dev/rdsk/%us0", d), Text("/dev/dsk/%us0", d));
    Put(&e, "class", "disk");
    Put(&e, "type", ide ? "ide" : "scsi");
    Put(&e, "desc", Text("%s disk %u: %s GB", ide ? "IDE" : "SCSI", d, rng_.Pick(kSize)));
    std::string contains;
    for (unsigned p = 1; p <= parts; ++p)
      contains += Text("%sdisk%us%u", p == 1 ? "" : ",", d, p);
    Put(&e, "ObjContains", contains);
    Put(&e, "bus", Text("scsi%u", bus));
    Put(&e, "target", Text("%u", target));
    Put(&e, "lun", "0");
    Put(&e, "vendor", rng_.Pick(kVendor));
    Put(&e, "state", rng_.Pick(kOnline));
    Put(&e, "capabilities", rng_.Pick(kCaps));
    Put(&e, "formatcmd", Text("/sbin/format -d /dev/rdsk/%us0", d));
    Put(&e, "checkcmd", Text("/sbin/fsck -n /dev/dsk/%us0", d));
    Put(&e, "offlinecmd", "echo offline");
    Put(&e, "QDdestroyfunc", "checkcmd[10][?],offlinecmd[20]");
    Put(&e, "statfunc", "diskstat");
    group_.push_back(std::move(e));

    static const char *const kRoot[] = {"/", "/usr", "/home", "/var", "/opt", "/tmp", "/export"};
    static const char *const kFs[] = {"ufs", "ufs", "ufs", "vxfs"};
    static const char *const kOpts[] = {"rw", "rw,logging", "ro", "rw,nosuid,logging"};
    for (unsigned p = 1; p <= parts; ++p) {
      bool swap = parts > 1 && rng_.PerMille(120);
      std::string mount = swap ? "" : d == 0 ? kRoot[(p - 1) % 7] : Text("/data%u/%u", d, p);
      devtab::Entry s = Head(Text("disk%us%u", d, p), Text("/dev/rdsk/%us%u", d, p),
                             Text("/dev/dsk/%us%u", d, p), mount);
      Put(&s, "class", "partition");
      Put(&s, "type", swap ? "swap" : rng_.Pick(kFs));
      Put(&s, "parent", Text("disk%u", d));
      Put(&s, "size", Text("%uM", 256 * (1 + rng_.Below(32))));
      if (swap) {
        Put(&s, "swapcmd", Text("swap -a /dev/dsk/%us%u", d, p));
      } else {
        Put(&s, "mountopts", rng_.Pick(kOpts));
        Put(&s, "mountcmd", Text("mount /dev/dsk/%us%u", d, p));
        Put(&s, "umountcmd", Text("umount /dev/dsk/%us%u", d, p));
      }
      group_.push_back(std::move(s));
    }
    return d;
  }

  unsigned Tape(unsigned bus, unsigned target) {
    static const char *const kType[] = {"dat", "lto", "dlt", "8mm"};
    static const char *const kDensity[] = {"low,medium,high", "low,high", "high"};
    unsigned t = tapes_++;
    devtab::Entry e = Head(Text("tape%u", t), Text("/dev/rmt/%u", t));
    Put(&e, "class", "tape");
    Put(&e, "type", rng_.Pick(kType));
    Put(&e, "desc", Text("Tape drive %u", t));
    Put(&e, "density", rng_.Pick(kDensity));
    Put(&e, "bus", Text("scsi%u", bus));
    Put(&e, "target", Text("%u", target));
    Put(&e, "state", rng_.Pick(kOnline));
    Put(&e, "rewindcmd", Text("mt -f /dev/rmt/%u rewind", t));
    Put(&e, "ejectcmd", Text("mt -f /dev/rmt/%u offline", t));
    Put(&e, "backupfunc", "rewindcmd[10][?],ejectcmd[20][u+]");
    group_.push_back(std::move(e));
    return t;
  }

  void SerialBoard(size_t budget) {
    static const unsigned kPorts[] = {4, 8, 8, 16};
    static const char *const kSpeed[] = {"9600", "19200", "38400", "57600", "115200"};
    static const char *const kParity[] = {"none", "none", "even", "odd"};
    static const char *const kFlow[] = {"xonxoff", "rtscts"};
    static const char *const kIrq[] = {"3", "4", "5", "7", "10", "11"};
    unsigned ports = kPorts[rng_.Below(4)];
    if (ports > budget - 1) ports = static_cast<unsigned>(budget - 1);
    unsigned b = boards_++, first = ttys_;
    devtab::Entry board = Head(Text("serial%u", b));
    Put(&board, "class", "serialboard");
    Put(&board, "desc", Text("%u-port serial board, lines %u-%u", ports, first, first + ports - 1));
    std::string contains;
    for (unsigned i = 0; i < ports; ++i) contains += Text("%stty%04u", i ? "," : "", first + i);
    Put(&board, "ObjContains", contains);
    Put(&board, "irq", rng_.Pick(kIrq));
    Put(&board, "ioaddr", Text("0x%x", 0x200 + 0x10 * (b % 32)));
    Put(&board, "resetfunc", "boardreset");
    group_.push_back(std::move(board));

    for (unsigned i = 0; i < ports; ++i) {
      unsigned n = ttys_++;
      devtab::Entry e = Head(Text("tty%04u", n), Text("/dev/term/%04u", n));
      Put(&e, "class", "serial");
      Put(&e, "type", rng_.PerMille(900) ? "rs232" : "rs422");
      Put(&e, "speed", rng_.Pick(kSpeed));
      Put(&e, "parity", rng_.Pick(kParity));
      Put(&e, "flow", rng_.Pick(kFlow));
      Put(&e, "port", Text("serial%u", b));
      Put(&e, "state", rng_.Pick(kEnabled));
      if (rng_.PerMille(80)) Put(&e, "modem", "hayes,autoanswer");
      Put(&e, "enablecmd", Text("pmadm -e -p ttymon -s tty%04u", n));
      Put(&e, "disablecmd", Text("pmadm -d -p ttymon -s tty%04u", n));
      group_.push_back(std::move(e));
    }
  }

  void Network() {
    static const char *const kType[] = {"ethernet", "ethernet", "ethernet", "fddi", "tokenring"};
    static const char *const kMask[] = {"255.255.255.0", "255.255.0.0", "255.255.255.128"};
    static const char *const kProto[] = {"ip,arp", "ip,arp,ipx", "ip,arp,ipx,netbios"};
    unsigned n = nets_++;
    const char *type = rng_.Pick(kType);
    devtab::Entry e = Head(Text("net%u", n), Text("/dev/net%u", n));
    Put(&e, "class", "network");
    Put(&e, "type", type);
    unsigned a = rng_.Below(256), b = rng_.Below(256), c = 1 + rng_.Below(254);
    Put(&e, "address", Text("10.%u.%u.%u", a, b, c));
    Put(&e, "netmask", rng_.Pick(kMask));
    Put(&e, "mac", Text("08:00:20:%02x:%02x:%02x", b, c, n & 0xff));
    Put(&e, "mtu", type[0] == 'e' ? "1500" : type[0] == 'f' ? "4352" : "4464");
    Put(&e, "desc", Text("%c%s interface %u", type[0] - 'a' + 'A', type + 1, n));
    Put(&e, "protocols", rng_.Pick(kProto));
    Put(&e, "upcmd", Text("ifconfig net%u up", n));
    Put(&e, "downcmd", Text("ifconfig net%u down", n));
    Put(&e, "restartfunc", "downcmd[10][x],upcmd[20][?]");
    group_.push_back(std::move(e));
  }

  void Printer() {
    static const char *const kName[] = {"north", "south", "plotter", "colour"};
    unsigned n = printers_++;
    bool remote = rng_.PerMille(400);
    devtab::Entry e = Head(Text("lp%u", n), remote ? "" : Text("/dev/lp%u", n));
    Put(&e, "class", "printer");
    Put(&e, "type", remote ? "network" : "parallel");
    unsigned floor = 1 + rng_.Below(9), room = rng_.Below(40);
    Put(&e, "desc", rng_.PerMille(150)
                        ? Text("Printer \"%s\", room %u.%02u", rng_.Pick(kName), floor, room)
                        : Text("Line printer, room %u.%02u", floor, room));
    if (remote) {
      unsigned net = rng_.Below(256), host = 1 + rng_.Below(254);
      Put(&e, "uri", Text("socket://10.1.%u.%u:9100", net, host));
    }
    Put(&e, "queue", Text("lp%u", n));
    Put(&e, "state", rng_.Pick(kEnabled));
    Put(&e, "testcmd", Text("echo test page | lp -d lp%u", n));
    Put(&e, "cancelcmd", Text("cancel -a lp%u", n));
    group_.push_back(std::move(e));
  }

  void Cdrom() {
    unsigned n = cdroms_++;
    devtab::Entry e = Head(Text("cdrom%u", n), Text("/dev/rdsk/cd%u", n), Text("/dev/dsk/cd%u", n),
                           n == 0 ? "/cdrom" : Text("/cdrom%u", n));
    Put(&e, "class", "cdrom");
    Put(&e, "type", rng_.PerMille(500) ? "atapi" : "scsi");
    Put(&e, "desc", "CD-ROM drive");
    Put(&e, "state", rng_.Pick(kOnline));
    Put(&e, "ejectcmd", Text("eject /dev/rdsk/cd%u", n));
    group_.push_back(std::move(e));
  }

  Rng rng_;
  const std::function<void(const devtab::Entry &)> &emit_;
  std::vector<devtab::Entry> group_;  // a container and what it holds, emitted together
  unsigned buses_ = 0, disks_ = 0, tapes_ = 0, boards_ = 0, ttys_ = 0, nets_ = 0,
           printers_ = 0, cdroms_ = 0;
};

}  // namespace

void Generate(size_t count, uint64_t variant,
              const std::function<void(const devtab::Entry &)> &emit) {
  Generator(variant, emit).Run(count);
}

size_t WriteTable(const std::string &path, size_t count, uint64_t variant,
                  std::vector<std::string> *aliases) {
  FILE *out = fopen(path.c_str(), "w");
  if (out == nullptr) return 0;
  std::string line;
  Generate(count, variant, [&](const devtab::Entry &e) {
    line.clear();
    devtab::FormatEntry(e, &line);
    fwrite(line.data(), 1, line.size(), out);
    if (aliases != nullptr) aliases->push_back(e.alias);
  });
  size_t bytes = static_cast<size_t>(ftell(out));
  fclose(out);
  return bytes;
}

}  // namespace tablegen
