#include "Symbols.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwfl.h>
#include <filesystem>
#include <gelf.h>
#include <map>
#include <optional>
#include <string_view>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <tuple>
#include <unistd.h>
#include <unordered_map>
#include <utility>

namespace qvx {

namespace {

constexpr std::uint32_t kNothing = 0xFFFFFFFF;

/// Ranges of addresses, which may lie in one another, and which of them is the innermost at an address.
class Ranges {
public:
    /// Of two that are the same, the one that is added later is the inner one.
    void add(std::uint64_t from, std::uint64_t to, std::uint32_t what) {
        if (from < to)
            m_ranges.push_back({from, to, what});
    }
    /// To be called once all are added.
    void settle() {
        std::ranges::stable_sort(m_ranges, {}, [](const Range& range) { return std::tuple(range.from, ~range.to); });
        std::vector<Range> open; // each within the one before
        const auto closeUntil = [&](std::uint64_t address) {
            while (!open.empty() && open.back().to <= address) {
                const std::uint64_t end = open.back().to;
                open.pop_back();
                begin(end, open.empty() ? kNothing : open.back().what);
            }
        };
        for (const Range& range : m_ranges) {
            closeUntil(range.from);
            while (!open.empty() && open.back().to < range.to) // they only overlap: the later one counts
                open.pop_back();
            begin(range.from, range.what);
            open.push_back(range);
        }
        closeUntil(~std::uint64_t{0});
        m_ranges = {};
    }
    std::optional<std::uint32_t> find(std::uint64_t address) const {
        const auto behind = std::ranges::upper_bound(m_starts, address, {}, &Start::from);
        if (behind == m_starts.begin() || std::prev(behind)->what == kNothing)
            return std::nullopt;
        return std::prev(behind)->what;
    }

private:
    struct Range {
        std::uint64_t from, to;
        std::uint32_t what;
    };
    struct Start {
        std::uint64_t from;
        std::uint32_t what;
    };
    void begin(std::uint64_t from, std::uint32_t what) {
        if (!m_starts.empty() && m_starts.back().from == from)
            m_starts.back().what = what;
        else
            m_starts.push_back({from, what});
    }

    std::vector<Range> m_ranges;
    std::vector<Start> m_starts;
};

std::string hexOf(std::string_view bytes) {
    std::string hex;
    for (const char byte : bytes)
        hex += fmt::format("{:02x}", static_cast<unsigned char>(byte));
    return hex;
}

std::string fileNameOf(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

/// A symbol without its version, and without what compilers append to copies and parts of a function.
std::string_view withoutSuffixes(std::string_view symbol) {
    constexpr std::string_view kMade[] = {"cold", "part", "isra",       "constprop", "lto_priv",
                                          "llvm", "hot",  "localalias", "__uniq",    "clone"};
    symbol = symbol.substr(0, symbol.find('@', 1));
    for (std::size_t dot = 0; (dot = symbol.find('.', dot + 1)) != std::string_view::npos;) {
        const std::string_view word = symbol.substr(dot + 1, symbol.find('.', dot + 1) - dot - 1);
        if (std::ranges::find(kMade, word) != std::end(kMade))
            return symbol.substr(0, dot);
    }
    return symbol;
}

std::string demangled(std::string_view symbol) {
    std::string name(withoutSuffixes(symbol));
    if (!name.starts_with("_Z")) // what is no symbol of C++ may be the name of a type: "i" is int
        return name;
    int status = 0;
    if (char* text = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status)) {
        name = text;
        std::free(text);
    }
    return name;
}

/// A file in memory that has the code which the kernel has put into each process; -1 where there is none.
int openVdso() {
    const auto* start = reinterpret_cast<const char*>(getauxval(AT_SYSINFO_EHDR));
    if (!start)
        return -1;
    // The table of its sections stands at its end, in both classes of files.
    std::size_t size = 0;
    if (start[EI_CLASS] == ELFCLASS64) {
        Elf64_Ehdr head;
        std::memcpy(&head, start, sizeof head);
        size = head.e_shoff + std::size_t{head.e_shnum} * head.e_shentsize;
    } else {
        Elf32_Ehdr head;
        std::memcpy(&head, start, sizeof head);
        size = head.e_shoff + std::size_t{head.e_shnum} * head.e_shentsize;
    }
    const int file = memfd_create("vdso", MFD_CLOEXEC);
    if (file >= 0 && write(file, start, size) != static_cast<ssize_t>(size)) {
        close(file);
        return -1;
    }
    return file;
}

} // namespace

/// What is known of the file.
class Symbols::Code {
public:
    Code(const std::string& path, std::string_view buildId, const std::string& debugDirectory);
    Code(const Code&) = delete;
    Code& operator=(const Code&) = delete;
    ~Code() {
        if (m_dwfl)
            dwfl_end(m_dwfl);
    }

    const Function& function(std::uint64_t address);
    std::vector<Frame> frames(std::uint64_t address);
    /// Why there are no names; empty where there may be some.
    const std::string& problem() const { return m_problem; }

private:
    struct Place {
        std::string file;
        unsigned line = 0;
    };
    struct Symbol {
        std::uint64_t from;
        std::uint64_t to;
        bool isGuess; ///< its end is not told
        int rank;     ///< of those that begin at the same address, the lowest counts
        const char* name;
    };
    /// What DWARF tells of a source that was compiled. Its functions are looked for when one is asked for.
    struct Unit {
        Dwarf_Die top;   ///< has the lines
        Dwarf_Die inner; ///< has the functions; another one if they stand in a file of their own
        bool isRead = false;
        Ranges ranges; ///< of its functions
        std::vector<Dwarf_Die> functions;
        std::unordered_map<const void*, Dwarf_Die> parents; ///< what functions and types stand in, by their address
    };

    bool open(const std::string& path, std::string_view buildId);
    void readSegments();
    void readSymbols();
    void readUnits();
    void readFunctions(Unit& unit, Dwarf_Die& parent, unsigned depth);
    void addRanges(Dwarf_Die& die, Ranges& ranges, std::uint32_t number);

    /// The symbol at an address; null where there is none.
    const char* symbolAt(std::uint64_t address) const {
        const auto symbol = m_symbolRanges.find(address);
        return symbol ? m_symbols[*symbol].name : nullptr;
    }
    Unit& read(Unit& unit);
    Unit* unitAt(std::uint64_t address);
    /// The functions of the file of a DIE.
    Unit& unitOf(Dwarf_Die& die);
    /// The function at an address, in that unit; null where there is none.
    Dwarf_Die* functionAt(Unit* unit, std::uint64_t address);
    /// By its linkage name, or by the names of what it stands in.
    std::string nameOf(Dwarf_Die die);
    std::string qualifiedName(Dwarf_Die die);
    /// The path of a source that the tables of the file of a DIE name.
    const std::string& sourceOf(Dwarf_Die& die, const char* file);
    /// What two attributes of a DIE tell, or those of what it is made of.
    Place placeOf(Dwarf_Die& die, unsigned fileAttribute, unsigned lineAttribute);
    Place lineAt(Unit& unit, std::uint64_t address);
    std::string nameAt(std::uint64_t address, Dwarf_Die* die, bool& isNamed);

    std::string m_fileName;
    std::string m_directories;
    char* m_directoriesAsked = nullptr; ///< what the library asks for
    Dwfl_Callbacks m_callbacks{};
    Dwfl* m_dwfl = nullptr;
    Dwfl_Module* m_module = nullptr;
    std::string m_problem;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> m_segments; ///< that have code
    std::vector<Symbol> m_symbols;
    Ranges m_symbolRanges;
    std::uint64_t m_dwarfBias = 0; ///< what is added to the addresses that DWARF tells
    std::vector<std::unique_ptr<Unit>> m_units;
    Ranges m_unitRanges;
    std::unordered_map<const void*, Unit*> m_unitsByDie;     ///< by the address of their first DIE
    std::unordered_map<const void*, std::string> m_names;    ///< by the address of their DIE
    std::unordered_map<const void*, std::string> m_sources;  ///< by where their name stands
    std::unordered_map<std::uint64_t, Function> m_functions; ///< that have been asked for
};

Symbols::Code::Code(const std::string& path, std::string_view buildId, const std::string& debugDirectory)
    : m_fileName(fileNameOf(path)),
      m_directories(":.debug:" + debugDirectory),
      m_directoriesAsked(m_directories.data()) {
    m_callbacks.find_elf = dwfl_build_id_find_elf;
    m_callbacks.find_debuginfo = dwfl_standard_find_debuginfo;
    m_callbacks.debuginfo_path = &m_directoriesAsked;
    bool isOpen = false;
    if (path.starts_with('/')) {
        isOpen = open(path, buildId);
        if (!isOpen && buildId.size() > 1) {
            // What was installed in its place may have left its debug file, or a link to the old one.
            const std::string hex = hexOf(buildId);
            const std::string id = debugDirectory + "/.build-id/" + hex.substr(0, 2) + "/" + hex.substr(2);
            const std::string problem = m_problem;
            isOpen = open(id, buildId) || open(id + ".debug", buildId);
            m_problem = isOpen ? "" : problem;
        }
    } else if (const int vdso = openVdso(); vdso >= 0) {
        isOpen = open("/proc/self/fd/" + std::to_string(vdso), buildId);
        close(vdso);
    }
    if (!isOpen)
        return;
    readSegments();
    readSymbols();
    readUnits();
}

bool Symbols::Code::open(const std::string& path, std::string_view buildId) {
    if (m_dwfl)
        dwfl_end(m_dwfl);
    m_dwfl = dwfl_begin(&m_callbacks);
    dwfl_report_begin(m_dwfl);
    m_module = dwfl_report_elf(m_dwfl, m_fileName.c_str(), path.c_str(), -1, 0, true);
    if (!m_module || dwfl_report_end(m_dwfl, nullptr, nullptr) != 0) {
        m_problem = dwfl_errmsg(-1);
        m_module = nullptr;
        return false;
    }
    // The library would take another build for this one.
    GElf_Addr bias = 0, place = 0;
    const unsigned char* id = nullptr;
    dwfl_module_getelf(m_module, &bias);
    const int size = dwfl_module_build_id(m_module, &id, &place);
    const std::string_view found(reinterpret_cast<const char*>(id), size > 0 ? static_cast<std::size_t>(size) : 0);
    if (!buildId.empty() && found != buildId) {
        m_problem = "is not the file that ran, but another build of it";
        m_module = nullptr;
        return false;
    }
    return true;
}

void Symbols::Code::readSegments() {
    GElf_Addr bias = 0;
    Elf* const elf = dwfl_module_getelf(m_module, &bias);
    std::size_t count = 0;
    if (!elf || elf_getphdrnum(elf, &count) != 0)
        return;
    for (std::size_t i = 0; i < count; ++i) {
        GElf_Phdr segment;
        if (gelf_getphdr(elf, static_cast<int>(i), &segment) && segment.p_type == PT_LOAD && segment.p_flags & PF_X)
            m_segments.emplace_back(bias + segment.p_vaddr, bias + segment.p_vaddr + segment.p_memsz);
    }
}

void Symbols::Code::readSymbols() {
    struct Section {
        bool hasCode = false;
        std::uint64_t end = 0;
    };
    std::map<std::pair<Elf*, GElf_Word>, Section>
        sections; // of the file, of that with its debug information, and so on
    const auto sectionOf = [&](Elf* elf, GElf_Word number, GElf_Addr bias) -> const Section& {
        const auto [entry, isNew] = sections.try_emplace({elf, number});
        Elf_Scn* const section = isNew ? elf_getscn(elf, number) : nullptr;
        GElf_Shdr head;
        if (section && gelf_getshdr(section, &head))
            entry->second = {(head.sh_flags & SHF_EXECINSTR) != 0, bias + head.sh_addr + head.sh_size};
        return entry->second;
    };
    const int count = dwfl_module_getsymtab(m_module);
    for (int i = 1; i < count; ++i) {
        GElf_Sym symbol;
        GElf_Addr address = 0, bias = 0;
        GElf_Word number = 0;
        Elf* elf = nullptr;
        const char* name = dwfl_module_getsym_info(m_module, i, &symbol, &address, &number, &elf, &bias);
        if (!name || !*name || *name == '$')
            continue;
        const int type = GELF_ST_TYPE(symbol.st_info);
        const bool isFunction = type == STT_FUNC || type == STT_GNU_IFUNC;
        if (number == SHN_UNDEF) {
            // Programs that stand at a fixed place use a stub of theirs for the address of a library's function.
            if (isFunction && symbol.st_value != 0)
                m_symbols.push_back({symbol.st_value, symbol.st_value + 1, false, 9, name});
            continue;
        }
        if (!elf || number >= SHN_LORESERVE || !(isFunction || type == STT_NOTYPE))
            continue;
        const Section& section = sectionOf(elf, number, bias);
        if (!section.hasCode || address >= section.end)
            continue;
        const int binding = GELF_ST_BIND(symbol.st_info);
        const int rank = (isFunction ? 0 : 4) + (symbol.st_size > 0 ? 0 : 2) + (binding == STB_LOCAL);
        const std::uint64_t end = symbol.st_size > 0 ? address + symbol.st_size : section.end;
        m_symbols.push_back({address, end, symbol.st_size == 0, rank, name});
    }
    std::ranges::sort(m_symbols, [](const Symbol& one, const Symbol& other) {
        return std::tuple(one.from, one.rank, std::strspn(one.name, "_"), std::string_view(one.name)) <
               std::tuple(other.from, other.rank, std::strspn(other.name, "_"), std::string_view(other.name));
    });
    const auto isAlias = [](const Symbol& one, const Symbol& other) { return one.from == other.from; };
    m_symbols.erase(std::unique(m_symbols.begin(), m_symbols.end(), isAlias), m_symbols.end());
    // One whose end is not told goes to the next; within another it is a label.
    std::uint64_t known = 0;
    for (std::uint32_t i = 0; i < m_symbols.size(); ++i) {
        Symbol& symbol = m_symbols[i];
        if (symbol.isGuess && symbol.from < known)
            continue;
        if (symbol.isGuess && i + 1 < m_symbols.size())
            symbol.to = std::min(symbol.to, m_symbols[i + 1].from);
        known = std::max(known, symbol.to);
        m_symbolRanges.add(symbol.from, symbol.to, i);
    }
    m_symbolRanges.settle();
}

void Symbols::Code::readUnits() {
    if (!dwfl_module_getdwarf(m_module, &m_dwarfBias))
        return;
    Dwarf_Addr bias = 0;
    for (Dwarf_Die* die = nullptr; (die = dwfl_module_nextcu(m_module, die, &bias)) != nullptr;) {
        auto unit = std::make_unique<Unit>();
        unit->top = unit->inner = *die;
        std::uint8_t type = 0;
        Dwarf_Die split;
        if (dwarf_cu_info(die->cu, nullptr, &type, nullptr, &split, nullptr, nullptr, nullptr) == 0 &&
            type == DW_UT_skeleton && split.addr)
            unit->inner = split;
        addRanges(unit->top, m_unitRanges, static_cast<std::uint32_t>(m_units.size()));
        m_unitsByDie[unit->inner.addr] = unit.get();
        m_units.push_back(std::move(unit));
    }
    m_unitRanges.settle();
}

void Symbols::Code::addRanges(Dwarf_Die& die, Ranges& ranges, std::uint32_t number) {
    Dwarf_Addr base = 0, from = 0, to = 0;
    for (std::ptrdiff_t at = 0; (at = dwarf_ranges(&die, at, &base, &from, &to)) > 0;) {
        from += m_dwarfBias;
        to += m_dwarfBias;
        // Functions that the linker has left out begin at 0, or at an address that is none.
        const auto holds = [&](const auto& segment) { return from >= segment.first && to <= segment.second; };
        if (from != m_dwarfBias && std::ranges::any_of(m_segments, holds))
            ranges.add(from, to, number);
    }
}

void Symbols::Code::readFunctions(Unit& unit, Dwarf_Die& parent, unsigned depth) {
    constexpr unsigned kDeepest = 200;
    Dwarf_Die die;
    if (depth > kDeepest || dwarf_child(&parent, &die) != 0)
        return;
    do {
        switch (dwarf_tag(&die)) {
        case DW_TAG_subprogram:
            addRanges(die, unit.ranges, static_cast<std::uint32_t>(unit.functions.size()));
            unit.functions.push_back(die);
            [[fallthrough]]; // a function has types in it, whose functions stand there
        case DW_TAG_namespace:
        case DW_TAG_module:
        case DW_TAG_class_type:
        case DW_TAG_structure_type:
        case DW_TAG_union_type:
        case DW_TAG_lexical_block:
            unit.parents[die.addr] = parent;
            readFunctions(unit, die, depth + 1);
            break;
        default:
            break;
        }
    } while (dwarf_siblingof(&die, &die) == 0);
}

Symbols::Code::Unit& Symbols::Code::read(Unit& unit) {
    if (!unit.isRead) {
        unit.isRead = true;
        readFunctions(unit, unit.inner, 0);
        unit.ranges.settle();
    }
    return unit;
}

Symbols::Code::Unit* Symbols::Code::unitAt(std::uint64_t address) {
    const auto unit = m_unitRanges.find(address);
    return unit ? m_units[*unit].get() : nullptr;
}

Symbols::Code::Unit& Symbols::Code::unitOf(Dwarf_Die& die) {
    Dwarf_Die top;
    dwarf_diecu(&die, &top, nullptr, nullptr);
    Unit*& unit = m_unitsByDie[top.addr];
    if (!unit) { // of types, or in a file that several share
        m_units.push_back(std::make_unique<Unit>());
        unit = m_units.back().get();
        unit->top = unit->inner = top;
    }
    return read(*unit);
}

Dwarf_Die* Symbols::Code::functionAt(Unit* unit, std::uint64_t address) {
    if (!unit)
        return nullptr;
    const auto function = read(*unit).ranges.find(address);
    return function ? &unit->functions[*function] : nullptr;
}

std::string Symbols::Code::nameOf(Dwarf_Die die) {
    std::string& name = m_names[die.addr];
    if (name.empty()) {
        Dwarf_Attribute attribute;
        const char* linked = dwarf_formstring(dwarf_attr_integrate(&die, DW_AT_linkage_name, &attribute));
        name = linked ? demangled(linked) : qualifiedName(die);
    }
    return name;
}

std::string Symbols::Code::qualifiedName(Dwarf_Die die) {
    // Where it is declared tells what it belongs to.
    for (const unsigned link : {DW_AT_abstract_origin, DW_AT_abstract_origin, DW_AT_specification}) {
        Dwarf_Attribute attribute;
        Dwarf_Die target;
        if (dwarf_attr(&die, link, &attribute) && dwarf_formref_die(&attribute, &target))
            die = target;
    }
    const char* name = dwarf_diename(&die);
    std::string all = name ? name : "";
    if (all.empty())
        return all;
    const Unit& unit = unitOf(die);
    bool isCall = all.starts_with("operator()");
    for (auto at = unit.parents.find(die.addr); at != unit.parents.end(); at = unit.parents.find(die.addr)) {
        die = at->second;
        const int tag = dwarf_tag(&die);
        if (tag == DW_TAG_compile_unit || tag == DW_TAG_partial_unit || tag == DW_TAG_type_unit)
            break;
        if (tag == DW_TAG_lexical_block)
            continue;
        if (tag == DW_TAG_subprogram) { // its own name may be told elsewhere too
            all = nameOf(die) + "::" + all;
            break;
        }
        name = dwarf_diename(&die);
        all = (name                           ? name
               : tag == DW_TAG_namespace      ? "(anonymous namespace)"
               : std::exchange(isCall, false) ? "{lambda}"
                                              : "{unnamed}") +
              ("::" + all);
        isCall = false;
    }
    return all;
}

const std::string& Symbols::Code::sourceOf(Dwarf_Die& die, const char* file) {
    const auto [entry, isNew] = m_sources.try_emplace(file);
    if (!isNew || !file)
        return entry->second;
    std::filesystem::path path(file);
    Dwarf_Die top;
    Dwarf_Attribute attribute;
    if (path.is_relative() && dwarf_diecu(&die, &top, nullptr, nullptr)) {
        if (const char* directory = dwarf_formstring(dwarf_attr(&top, DW_AT_comp_dir, &attribute)))
            path = directory / path;
    }
    return entry->second = path.lexically_normal().string();
}

Symbols::Code::Place Symbols::Code::placeOf(Dwarf_Die& die, unsigned fileAttribute, unsigned lineAttribute) {
    // The library has functions for declarations, which end the program where a file of functions has no lines.
    Dwarf_Attribute attribute;
    Dwarf_Word line = 0, file = 0;
    Dwarf_Half version = 0;
    Dwarf_Die top;
    Dwarf_Files* files = nullptr;
    Place place;
    if (dwarf_formudata(dwarf_attr_integrate(&die, lineAttribute, &attribute), &line) == 0)
        place.line = static_cast<unsigned>(line);
    if (dwarf_formudata(dwarf_attr_integrate(&die, fileAttribute, &attribute), &file) == 0 &&
        dwarf_cu_die(attribute.cu, &top, &version, nullptr, nullptr, nullptr, nullptr, nullptr) &&
        (file > 0 || version >= 5) && dwarf_getsrcfiles(&top, &files, nullptr) == 0)
        place.file = sourceOf(top, dwarf_filesrc(files, file, nullptr, nullptr));
    return place;
}

Symbols::Code::Place Symbols::Code::lineAt(Unit& unit, std::uint64_t address) {
    Place place;
    if (Dwarf_Line* line = dwarf_getsrc_die(&unit.top, address - m_dwarfBias)) {
        int number = 0;
        dwarf_lineno(line, &number);
        place.line = static_cast<unsigned>(number);
        place.file = sourceOf(unit.top, dwarf_linesrc(line, nullptr, nullptr));
    }
    return place;
}

std::string Symbols::Code::nameAt(std::uint64_t address, Dwarf_Die* die, bool& isNamed) {
    std::string name;
    if (const char* symbol = symbolAt(address)) {
        std::string& known = m_names[symbol];
        if (known.empty())
            known = demangled(symbol);
        name = known;
    } else if (die) {
        name = nameOf(*die);
    }
    isNamed = !name.empty();
    return isNamed ? name : fmt::format("{}+{:#x}", m_fileName, address);
}

const Symbols::Function& Symbols::Code::function(std::uint64_t address) {
    const auto [entry, isNew] = m_functions.try_emplace(address);
    Function& function = entry->second;
    if (!isNew)
        return function;
    Unit* const unit = m_module ? unitAt(address) : nullptr;
    Dwarf_Die* const die = functionAt(unit, address);
    function.name = nameAt(address, die, function.isNamed);
    Place place;
    if (die)
        place = placeOf(*die, DW_AT_decl_file, DW_AT_decl_line);
    if (unit && place.line == 0) { // made by a compiler, or by an assembler: where its code begins
        Dwarf_Addr start = address - m_dwarfBias;
        const auto symbol = m_symbolRanges.find(address);
        if (!die || dwarf_entrypc(die, &start) != 0)
            start = (symbol ? m_symbols[*symbol].from : address) - m_dwarfBias;
        place = lineAt(*unit, start + m_dwarfBias);
    }
    function.file = std::move(place.file);
    function.line = place.line;
    return function;
}

std::vector<Symbols::Frame> Symbols::Code::frames(std::uint64_t address) {
    std::vector<Frame> frames;
    Unit* const unit = m_module ? unitAt(address) : nullptr;
    Place place = unit ? lineAt(*unit, address) : Place();
    Dwarf_Die* const function = functionAt(unit, address);
    std::vector<Dwarf_Die> inlined; // outermost first
    if (function) {
        Dwarf_Die child;
        for (bool goesOn = dwarf_child(function, &child) == 0; goesOn;) {
            const int tag = dwarf_tag(&child);
            const bool isBlock = tag == DW_TAG_lexical_block || tag == DW_TAG_inlined_subroutine;
            if (isBlock && dwarf_haspc(&child, address - m_dwarfBias) == 1) {
                if (tag == DW_TAG_inlined_subroutine)
                    inlined.push_back(child);
                Dwarf_Die inner;
                goesOn = dwarf_child(&child, &inner) == 0;
                child = inner;
            } else {
                goesOn = dwarf_siblingof(&child, &child) == 0;
            }
        }
    }
    for (; !inlined.empty(); inlined.pop_back()) {
        frames.push_back({nameOf(inlined.back()), place.file, place.line});
        place = placeOf(inlined.back(), DW_AT_call_file, DW_AT_call_line);
    }
    bool isNamed = false;
    frames.push_back({nameAt(address, function, isNamed), place.file, place.line});
    return frames;
}

Symbols::Symbols(const std::string& path, std::string_view buildId, const std::string& debugDirectory)
    : m_code(std::make_unique<Code>(path, buildId, debugDirectory)) {}

Symbols::~Symbols() = default;

const Symbols::Function& Symbols::function(std::uint64_t address) {
    return m_code->function(address);
}

std::vector<Symbols::Frame> Symbols::frames(std::uint64_t address) {
    return m_code->frames(address);
}

const std::string& Symbols::problem() const {
    return m_code->problem();
}

} // namespace qvx
