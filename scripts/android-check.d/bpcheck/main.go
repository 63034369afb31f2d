// bpcheck loads a project's Android.bp as a platform tree of late 2020 would:
// with Soong's own cc and prebuilt_etc module types, its test toolchain and
// placeholder platform libraries. It fails on any error Soong reports, on a
// path property naming nothing on disk (Soong's test configuration does not
// look), and unless the library and the service install on the partition
// given. It prints each file the project installs: "<module> <device path>".
//
//	bpcheck [-partition system_ext] [-root DIR] path/to/Android.bp
package main

import (
	"flag"
	"fmt"
	"os"
	"path/filepath"
	"sort"
	"strings"

	"android/soong/android"
	"android/soong/cc"
	"android/soong/etc"

	"github.com/google/blueprint"
	"github.com/google/blueprint/parser"
)

// What the project links from the platform, and what cc_test adds, each with
// the vendor variant the real one has: only the project's own modules decide
// which variants can be built.
const placeholders = `
cc_library { name: "libcutils", vendor_available: true }
cc_library { name: "libjsoncpp", vendor_available: true }
cc_library { name: "liblog", vendor_available: true }
cc_library_static { name: "libgtest", vendor_available: true }
cc_library_static { name: "libgtest_main", vendor_available: true }
`

const projectBp = "project/Android.bp" // in Soong's file system; the placeholders are Android.bp

var pathProperties = map[string]bool{"srcs": true, "src": true, "init_rc": true,
	"version_script": true, "local_include_dirs": true, "export_include_dirs": true}

func fail(lines ...string) {
	for _, line := range lines {
		fmt.Fprintln(os.Stderr, "bpcheck:", strings.ReplaceAll(line, projectBp, flag.Arg(0)))
	}
	os.Exit(1)
}

// The platform's headers that the sources include: one of the project's
// include folders holding its own copy would hide the platform's (the host
// stand-ins live where only the CMake build looks).
var platformHeaders = []string{"android/log.h", "cutils/sockets.h", "json/json.h"}

// badPaths lists the path properties' strings that name nothing under root,
// and include folders that would hide the platform's headers. A file that
// does not parse is left to Soong to report.
func badPaths(text []byte, root string) (bad []string) {
	file, errs := parser.ParseAndEval(projectBp, strings.NewReader(string(text)), parser.NewScope(nil))
	if len(errs) > 0 {
		return nil
	}
	for _, def := range file.Defs {
		module, ok := def.(*parser.Module)
		if !ok {
			continue
		}
		for _, prop := range module.Properties {
			values := []parser.Expression{prop.Value}
			if list, ok := prop.Value.(*parser.List); ok {
				values = list.Values
			}
			for _, value := range values {
				s, ok := value.(*parser.String)
				if !ok || !pathProperties[prop.Name] {
					continue
				}
				at := fmt.Sprintf("%s: %s: %q", value.Pos(), prop.Name, s.Value)
				if _, err := os.Stat(filepath.Join(root, s.Value)); err != nil {
					bad = append(bad, at+" names nothing")
				}
				for _, header := range platformHeaders {
					if _, err := os.Stat(filepath.Join(root, s.Value, header)); err == nil && strings.HasSuffix(prop.Name, "include_dirs") {
						bad = append(bad, at+" holds "+header+", which would hide the platform's")
					}
				}
			}
		}
	}
	return bad
}

// installs loads the file with Soong and returns what each module installs.
func installs(text []byte) []string {
	buildDir, err := os.MkdirTemp("", "bpcheck")
	if err != nil {
		fail(err.Error())
	}
	defer os.RemoveAll(buildDir)
	config := cc.TestConfig(buildDir, android.Android, nil, placeholders, map[string][]byte{projectBp: text})
	config.TestProductVariables.DeviceVndkVersion = cc.StringPtr("current")
	config.TestProductVariables.Platform_vndk_version = cc.StringPtr("VER")
	ctx := cc.CreateTestContext()
	etc.RegisterPrebuiltEtcBuildComponents(ctx)
	ctx.Register(config)
	_, errs := ctx.ParseFileList(".", []string{"Android.bp", projectBp})
	if len(errs) == 0 {
		_, errs = ctx.PrepareBuildActions(config)
	}
	var lines []string
	for _, err := range errs {
		lines = append(lines, err.Error())
	}
	if len(lines) > 0 {
		fail(lines...)
	}
	deviceRoot := filepath.Join(buildDir, "target", "product", "test_device")
	ctx.VisitAllModules(func(m blueprint.Module) {
		if module, ok := m.(android.Module); ok && ctx.BlueprintFile(m) == projectBp {
			for _, file := range module.FilesToInstall() {
				lines = append(lines, ctx.ModuleName(m)+" "+strings.TrimPrefix(file.String(), deviceRoot))
			}
		}
	})
	sort.Strings(lines)
	return lines
}

func main() {
	partition := flag.String("partition", "system_ext", "where the library and the service must install")
	root := flag.String("root", "", "the folder its paths start from (default: its own)")
	flag.Parse()
	if flag.NArg() != 1 {
		fail("usage: bpcheck [-partition NAME] [-root DIR] Android.bp")
	}
	text, err := os.ReadFile(flag.Arg(0))
	if err != nil {
		fail(err.Error())
	}
	if *root == "" {
		*root = filepath.Dir(flag.Arg(0))
	}
	if bad := badPaths(text, *root); len(bad) > 0 {
		fail(bad...)
	}
	report := installs(text)
	onPartition := "/" + *partition + "/"
	wrong := map[string]string{"libtalvoem_query_sys " + onPartition + "lib64/libtalvoem_query_sys.so": "missing",
		"talvoemd " + onPartition + "bin/talvoemd": "missing"}
	for _, line := range report {
		delete(wrong, line)
		if path := strings.Fields(line)[1]; !strings.HasPrefix(path, onPartition) && !strings.HasPrefix(path, "/data/") {
			wrong[line] = "not on " + *partition
		}
	}
	var lines []string
	for line, why := range wrong {
		lines = append(lines, line+": "+why)
	}
	if len(lines) > 0 {
		sort.Strings(lines)
		fail(lines...)
	}
	fmt.Println(strings.Join(report, "\n"))
}
