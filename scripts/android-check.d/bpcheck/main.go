// bpcheck loads a project's Android.bp the way a platform tree of late 2020
// would: with Soong's own cc and prebuilt_etc module types, its test
// toolchain and placeholder platform libraries. It fails on any error Soong
// reports, on a path property naming a file that does not exist, and when the
// library or the service does not install on the given partition. It prints
// each installed file of the project's modules, "<module> <device path>".
//
//	bpcheck [-partition system_ext] [-root DIR] path/to/Android.bp
package main

import (
	"flag"
	"fmt"
	"io/ioutil"
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

// What the project links from the platform and from cc_test, each with the
// vendor variant the real one has, so that only the project's own modules
// decide which variants can be built.
const placeholders = `
cc_library { name: "libcutils", vendor_available: true }
cc_library { name: "libjsoncpp", vendor_available: true }
cc_library { name: "liblog", vendor_available: true }
cc_library_static { name: "libgtest", vendor_available: true }
cc_library_static { name: "libgtest_main", vendor_available: true }
`

const projectBp = "project/Android.bp"

// Properties whose strings name files or folders beside Android.bp. Soong's
// test configuration does not look for them, so this does.
var pathProperties = map[string]bool{"srcs": true, "src": true, "init_rc": true,
	"version_script": true, "local_include_dirs": true, "export_include_dirs": true}

func missingPaths(bpPath, root string, text []byte) []string {
	file, errs := parser.ParseAndEval(bpPath, strings.NewReader(string(text)), parser.NewScope(nil))
	if len(errs) > 0 {
		return []string{errs[0].Error()}
	}
	var missing []string
	for _, def := range file.Defs {
		module, ok := def.(*parser.Module)
		if !ok {
			continue
		}
		for _, prop := range module.Properties {
			if !pathProperties[prop.Name] {
				continue
			}
			values := []parser.Expression{prop.Value}
			if list, ok := prop.Value.(*parser.List); ok {
				values = list.Values
			}
			for _, value := range values {
				if s, ok := value.(*parser.String); ok {
					if _, err := os.Stat(filepath.Join(root, s.Value)); err != nil {
						missing = append(missing, fmt.Sprintf("%s: %s: %q: no such file or folder",
							value.Pos(), prop.Name, s.Value))
					}
				}
			}
		}
	}
	return missing
}

func fail(lines ...string) {
	for _, line := range lines {
		fmt.Fprintln(os.Stderr, "bpcheck:", line)
	}
	os.Exit(1)
}

func main() {
	partition := flag.String("partition", "system_ext", "where the library and the service must install")
	root := flag.String("root", "", "the folder its paths are relative to (default: its own)")
	flag.Parse()
	if flag.NArg() != 1 {
		fail("usage: bpcheck [-partition NAME] [-root DIR] Android.bp")
	}
	text, err := ioutil.ReadFile(flag.Arg(0))
	if err != nil {
		fail(err.Error())
	}
	if *root == "" {
		*root = filepath.Dir(flag.Arg(0))
	}
	if missing := missingPaths(flag.Arg(0), *root, text); len(missing) > 0 {
		fail(missing...)
	}
	buildDir, err := ioutil.TempDir("", "bpcheck")
	if err != nil {
		fail(err.Error())
	}
	defer os.RemoveAll(buildDir)

	config := cc.TestConfig(buildDir, android.Android, nil, placeholders,
		map[string][]byte{projectBp: text})
	config.TestProductVariables.DeviceVndkVersion = cc.StringPtr("current")
	config.TestProductVariables.Platform_vndk_version = cc.StringPtr("VER")
	ctx := cc.CreateTestContext()
	etc.RegisterPrebuiltEtcBuildComponents(ctx)
	ctx.Register(config)
	_, errs := ctx.ParseFileList(".", []string{"Android.bp", projectBp})
	if len(errs) == 0 {
		_, errs = ctx.PrepareBuildActions(config)
	}
	if len(errs) > 0 {
		var lines []string
		for _, e := range errs {
			lines = append(lines, strings.ReplaceAll(e.Error(), projectBp, flag.Arg(0)))
		}
		fail(lines...)
	}

	deviceRoot := filepath.Join(buildDir, "target", "product", "test_device")
	installed := map[string]bool{}
	var report []string
	ctx.VisitAllModules(func(m blueprint.Module) {
		module, ok := m.(android.Module)
		if !ok || ctx.BlueprintFile(m) != projectBp {
			return
		}
		for _, file := range module.FilesToInstall() {
			path := strings.TrimPrefix(file.String(), deviceRoot)
			installed[path] = true
			report = append(report, ctx.ModuleName(m)+" "+path)
		}
	})
	sort.Strings(report)
	var wrong []string
	for _, line := range report {
		path := strings.Fields(line)[1]
		if !strings.HasPrefix(path, "/"+*partition+"/") && !strings.HasPrefix(path, "/data/") {
			wrong = append(wrong, line+": not on "+*partition)
		}
	}
	for _, want := range []string{"lib64/libtalvoem_query_sys.so", "bin/talvoemd"} {
		if !installed["/"+*partition+"/"+want] {
			wrong = append(wrong, "nothing installs /"+*partition+"/"+want)
		}
	}
	if len(wrong) > 0 {
		fail(wrong...)
	}
	fmt.Println(strings.Join(report, "\n"))
}
