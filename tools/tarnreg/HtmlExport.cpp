#include "tools/tarnreg/HtmlExport.h"

#include <string_view>

#include <fmt/format.h>

#include "tools/tarnreg/Printable.h"

namespace TarnReg {

using TarnRegFile::HardwareRegister;

namespace {

constexpr std::string_view style = R"(
:root { color-scheme: light dark; }
body { font: 15px/1.5 system-ui, sans-serif; margin: 2rem auto; max-width: 70rem; padding: 0 1rem; }
h1 { font-size: 1.5rem; margin: 0 0 1rem; overflow-wrap: anywhere; }
.search { position: sticky; top: 0; background: Canvas; padding: .5rem 0; }
input { font: inherit; width: 24rem; max-width: 60%; padding: .3rem .5rem; }
output { margin-left: 1rem; }
table { border-collapse: collapse; width: 100%; }
th, td { text-align: left; padding: .2rem .6rem; border-bottom: 1px solid GrayText; }
th { border-bottom-width: 2px; }
td:nth-child(1), td:nth-child(2) { font-family: ui-monospace, monospace; overflow-wrap: anywhere; }
@media print { .search { display: none; } }
)";

// What is searched for is in the address, behind the #, so that a search can be passed on.
constexpr std::string_view script = R"(
'use strict';
const box = document.getElementById('q');
const count = document.getElementById('count');
const rows = Array.from(document.querySelectorAll('tbody tr'), row => {
  const cells = Array.from(row.cells, cell => cell.textContent);
  return { row, name: cells[0], address: Number(cells[1]), text: cells.join(' ').toLowerCase() };
});
const matcher = word => {
  if (/^0x[0-9a-f]+$/i.test(word)) {
    return entry => entry.address === Number(word) || entry.name.includes(word);
  }
  if (!/[*?]/.test(word)) {
    return entry => entry.text.includes(word.toLowerCase());
  }
  const parts = Array.from(word, c => c === '*' ? '.*' : c === '?' ? '.' :
    c.replace(/[\\^$.*+?()[\]{}|\/-]/, '\\$&'));
  const pattern = new RegExp('^' + parts.join('') + '$', 'i');
  return entry => pattern.test(entry.name);
};
const search = () => {
  const matchers = box.value.split(/\s+/).filter(word => word !== '').map(matcher);
  let found = 0;
  for (const entry of rows) {
    const fits = matchers.every(match => match(entry));
    entry.row.hidden = !fits;
    found += fits ? 1 : 0;
  }
  count.textContent = found + ' of ' + rows.length + ' registers';
};
const fromAddress = () => {
  const text = location.hash.startsWith('#q=') ? location.hash.slice(3) : '';
  try {
    box.value = decodeURIComponent(text);
  } catch (error) {
    box.value = text;
  }
  search();
};
box.addEventListener('input', () => {
  search();
  history.replaceState(null, '', '#q=' + encodeURIComponent(box.value));
});
addEventListener('hashchange', fromAddress);
addEventListener('keydown', event => {
  if (event.key === '/' && document.activeElement !== box) {
    event.preventDefault();
    box.focus();
  } else if (event.key === 'Escape' && document.activeElement === box) {
    box.value = '';
    box.dispatchEvent(new Event('input'));
  }
});
document.querySelector('.search').hidden = false;
fromAddress();
)";

// The digest of `script`, so that browsers run this one and no other, whatever else is on the page.
constexpr std::string_view scriptDigest = "sha256-u7LV87UIJBtPpuvimpK3oFZfE8TYeBG/Pid0d+3qnac=";

std::string escaped(const std::string& text) {
   std::string out;
   for (const char c : text) {
      switch (c) {
      case '&':
         out += "&amp;";
         break;
      case '<':
         out += "&lt;";
         break;
      case '>':
         out += "&gt;";
         break;
      case '"':
         out += "&quot;";
         break;
      case '\'':
         out += "&#39;";
         break;
      default:
         out += c;
      }
   }
   return out;
}

} // namespace

std::string htmlOf(const RegisterSheet& sheet) {
   const std::string title = escaped(printable(sheet.title));
   std::string out = fmt::format(
      "<!DOCTYPE html>\n"
      "<html lang=\"en\">\n"
      "<head>\n"
      "<meta charset=\"utf-8\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
      "'unsafe-inline'; script-src '{}'; base-uri 'none'; form-action 'none'\">\n"
      "<meta name=\"viewport\" content=\"width=device-width\">\n"
      "<title>{}: registers</title>\n"
      "<style>{}</style>\n"
      "</head>\n"
      "<body>\n"
      "<h1>{}: registers</h1>\n"
      "<div class=\"search\" hidden><input id=\"q\" type=\"search\" autocomplete=\"off\" "
      "aria-label=\"Search\" placeholder=\"Name, FAN*PWM, 0x40, rw, sensor ...   ( / )\">"
      "<output id=\"count\"></output></div>\n"
      "<table>\n"
      "<thead><tr><th>Name</th><th>Address</th><th>Bits</th><th>Access</th><th>Type</th></tr>"
      "</thead>\n"
      "<tbody>\n",
      scriptDigest, title, style, title);
   for (const HardwareRegister* record : sheet.registers) {
      out += fmt::format("<tr><td>{}</td><td>{:#010x}</td><td>{}</td><td>{}</td><td>{}</td></tr>\n",
                         escaped(shownName(record->name)), record->address, record->width,
                         record->writable ? "rw" : "ro",
                         HardwareRegister::regTypeToString(record->type));
   }
   out += "</tbody>\n</table>\n<script>";
   out += script;
   return out += "</script>\n</body>\n</html>\n";
}

} // namespace TarnReg
