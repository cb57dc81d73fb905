// The inline style and script of report.html: nothing is fetched, and the
// page reads well without the script (the tables are plain HTML).
#include "capture/HtmlReportParts.h"

namespace report {

namespace {

const char* const kStyle = R"html(<style>
body{font:15px/1.45 system-ui,-apple-system,"Segoe UI",sans-serif;margin:0 auto;max-width:1200px;padding:0 16px 32px;color:#1d1d1f;background:#fff}
h1{font-size:1.5em;margin:20px 0 8px;overflow-wrap:anywhere}h2{font-size:1.2em;margin:28px 0 8px;border-bottom:1px solid #ddd}
table{border-collapse:collapse;margin:8px 0 16px;font-variant-numeric:tabular-nums}
caption{text-align:left;font-weight:600;padding:4px 0}
th,td{border-bottom:1px solid #e4e4e4;padding:4px 8px;text-align:left;vertical-align:top}
th{background:#f5f5f7;cursor:pointer;white-space:nowrap}.facts th{cursor:default}
td.number,th.number{text-align:right}
#messages{overflow-x:auto}#message-table td{max-width:28em;overflow-wrap:break-word}
.grid{display:flex;flex-wrap:wrap;gap:0 32px}
svg.chart{width:100%;max-width:720px;height:auto;font-size:12px;fill:#444}
figure{margin:8px 0}figcaption{font-size:.9em}.key i{display:inline-block;width:.8em;height:.8em;margin:0 4px 0 0}
.key{margin-right:12px}.note{background:#fff8e1;padding:6px 10px}
input[type=search]{font:inherit;padding:4px 8px;width:min(28em,90%)}
footer{margin-top:24px;color:#666;font-size:.9em}
</style></head><body>
)html";

}  // namespace

std::string PageHead(const Words& words) {
  return std::string("<!DOCTYPE html>\n<html lang=\"") + words.language() +
         "\"><head><meta charset=\"utf-8\">\n<meta name=\"viewport\" content=\"width=device-width, "
         "initial-scale=1\">\n<title>" +
         words("pelka-email report") + "</title>\n" + kStyle;
}

const char* const kPageScript = R"html(<script>
(function () {
  var table = document.getElementById('message-table');
  var input = document.getElementById('filter');
  var shown = document.getElementById('shown');
  if (table && input) {
    var rows = Array.prototype.slice.call(table.tBodies[0].rows);
    var apply = function () {
      var wanted = input.value.toLowerCase(), count = 0;
      rows.forEach(function (row) {
        var keep = !wanted || row.textContent.toLowerCase().indexOf(wanted) >= 0;
        row.hidden = !keep;
        if (keep) count++;
      });
      shown.textContent = shown.dataset.template.replace('%1', count).replace('%2', rows.length);
    };
    input.addEventListener('input', apply);
    var asked = /^#filter=(.*)$/.exec(location.hash);
    if (asked) { input.value = decodeURIComponent(asked[1]); apply(); }
  }
  document.querySelectorAll('table.sortable').forEach(function (sortable) {
    Array.prototype.forEach.call(sortable.tHead.rows[0].cells, function (header, column) {
      header.tabIndex = 0;
      header.addEventListener('click', function () {
        var body = sortable.tBodies[0], numeric = header.classList.contains('number');
        var direction = header.dataset.direction === 'up' ? -1 : 1;
        header.dataset.direction = direction > 0 ? 'up' : 'down';
        Array.prototype.slice.call(body.rows).sort(function (a, b) {
          var x = a.cells[column].textContent, y = b.cells[column].textContent;
          return direction * (numeric ? (parseFloat(x) || 0) - (parseFloat(y) || 0) : x.localeCompare(y));
        }).forEach(function (row) { body.appendChild(row); });
      });
    });
  });
})();
</script>
)html";

}  // namespace report
