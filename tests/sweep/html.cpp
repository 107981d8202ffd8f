// SPDX-License-Identifier: LGPL-2.1-or-later
// The page: a skeleton with a little script, and the cells as data. Traces share their lines.
#include "sweep/html.h"

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <unordered_map>

namespace sweep {
namespace {

using nlohmann::json;

constexpr char kHead[] = R"(<!doctype html><meta charset="utf-8"><title>What a fault does</title>
<style>
body{font:14px sans-serif;margin:1em}table{border-collapse:collapse;width:100%}
td,th{border-bottom:1px solid #ccc;padding:2px 6px;text-align:left;vertical-align:top}
tr.c{cursor:pointer}tr.c:hover{background:#eef}pre{background:#f6f6f6;padding:6px;overflow:auto}
input,select{margin-right:1em;padding:3px}
</style>
<h1>What a fault does</h1>
<p>Every fault at every transfer of every operation. Choose an operation and a fault, or what the
user was told, or type any of it; a click opens the trace.</p>
<select id="o"></select><select id="f"></select><select id="u"></select>
<input id="q" size="40" placeholder="text, result or state"><span id="n"></span>
<table><thead><tr><th>operation<th>transfer<th>fault<th>the user is told<th>result<th>ms
<th>state after</tr></thead><tbody id="t"></tbody></table>
<script>const data=)";

constexpr char kTail[] = R"(;
const $=i=>document.getElementById(i),most=500;
const chosen=[['o','every operation',0],['f','every fault',2],['u','whatever the user is told',3]];
const fill=(id,name,i)=>{const s=$(id),count=new Map();s.add(new Option(name,''));
 for(const c of data.cells)count.set(c[i],(count.get(c[i])||0)+1);
 for(const [v,n] of count)s.add(new Option((v||'nothing')+' ('+n+')','='+v));s.onchange=show};
const cell=(r,v)=>{r.insertCell().textContent=v};
const whole=c=>{const base=data.whole[c[0]],[first,last,middle]=c[7];
 return base.slice(0,first).concat(middle,base.slice(base.length-last))};
const trace=c=>{let at=0;return whole(c).map(e=>{const [t,n]=Array.isArray(e)?e:[0,e];
 return String(at+=t).padStart(7)+'  '+data.lines[n]}).join('\n')};
function show(){const q=$('q').value.toLowerCase();$('t').replaceChildren();
 const found=data.cells.filter(c=>chosen.every(([id,,i])=>!$(id).value||'='+c[i]===$(id).value)&&
  (!q||c.slice(3,7).join(' ').toLowerCase().includes(q)));
 $('n').textContent=found.length+' cells'+(found.length>most?', the first '+most+' are shown':'');
 for(const c of found.slice(0,most)){const r=$('t').insertRow();r.className='c';
  for(let i=0;i<7;++i)cell(r,c[i]);
  r.onclick=()=>{const next=r.nextSibling;
   if(next&&next.className==='x')return next.remove();
   const x=$('t').insertRow(r.sectionRowIndex+1);x.className='x';const d=x.insertCell();
   d.colSpan=7;const p=document.createElement('pre');p.textContent=trace(c);d.append(p)}}}
for(const row of chosen)fill(...row);
$('q').oninput=show;show();
</script>
)";

}  // namespace

struct Page::Data {
  json cells = json::array();
  json lines = json::array();
  json whole = json::object();  ///< by operation: its trace when nothing goes wrong
  std::unordered_map<std::string, int> numbers;

  int number_of(const std::string& line);
  json told(const std::vector<std::string>& trace);
  json told_against(const json& base, const json& trace);
};

int Page::Data::number_of(const std::string& line) {
  const auto [at, fresh] = numbers.emplace(line, static_cast<int>(lines.size()));
  if (fresh) lines.push_back(line);
  return at->second;
}

// "@ t=120 text" becomes the number of its text, with the time since the line before if any.
json Page::Data::told(const std::vector<std::string>& trace) {
  json result = json::array();
  int64_t last = 0;
  for (const std::string& line : trace) {
    const size_t text = line.rfind("@ t=", 0) == 0 ? line.find(' ', 4) : std::string::npos;
    const int64_t t = text == std::string::npos ? last : std::stoll(line.substr(4));
    const int number = number_of(text == std::string::npos ? line : line.substr(text + 1));
    result.push_back(t == last ? json(number) : json{t - last, number});
    last = t;
  }
  return result;
}

// How much of the base begins and ends the trace, and what stands between.
json Page::Data::told_against(const json& base, const json& trace) {
  const size_t most = std::min(base.size(), trace.size());
  size_t first = 0, last = 0;
  while (first < most && base[first] == trace[first])
    ++first;
  const auto from_end = [](const json& list, size_t i) -> const json& {
    return list[list.size() - 1 - i];
  };
  while (last < most - first && from_end(base, last) == from_end(trace, last))
    ++last;
  const auto end = trace.end() - static_cast<std::ptrdiff_t>(last);
  return {first, last,
          json(std::vector<json>(trace.begin() + static_cast<std::ptrdiff_t>(first), end))};
}

Page::Page() : data_(std::make_unique<Data>()) {}
Page::~Page() = default;

void Page::add(const Cell& cell, const Outcome& outcome) {
  const std::string name(cell.operation->name);
  json& whole = data_->whole[name];
  if (whole.is_null()) whole = data_->told(run({cell.operation, cell.setting}, true).trace);
  const Strike& strike = cell.strikes().front();
  data_->cells.push_back(
      {name, std::to_string(strike.transfer) + " " + std::string(role_name(strike.role)),
       strike.fault->name, outcome.told, outcome.words.first, outcome.ms, outcome.state,
       data_->told_against(whole, data_->told(outcome.trace))});
}

bool Page::write(const std::string& path) const {
  std::ofstream out(path);
  const json data = {{"cells", data_->cells}, {"lines", data_->lines}, {"whole", data_->whole}};
  std::string text = data.dump(-1, ' ', false, json::error_handler_t::replace);
  // The script ends at no text of a trace.
  for (size_t at = 0; (at = text.find("</", at)) != std::string::npos;)
    text.replace(at, 2, "<\\/");
  out << kHead << text << kTail;
  return static_cast<bool>(out.flush());
}

}  // namespace sweep
